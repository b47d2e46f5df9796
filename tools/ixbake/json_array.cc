#include "json_array.h"

#include <array>

namespace {

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Where JSON forbids a line feed (inside a string) it gets another byte it
// forbids, so the element still fails to parse and its line stays whole.
constexpr char LINE_FEED_IN_STRING = '\x01';

// The bytes that can change what the reader does; runs of other bytes in
// an element are copied whole.
constexpr auto SPECIAL = [] {
  std::array<bool, 256> special{};
  for (unsigned char c : std::string_view("\"\\{}[],\n")) special[c] = true;
  return special;
}();

}  // namespace

void json_array_reader::take_run() {
  size_t run = 0;
  while (run < pending_.size() && !SPECIAL[static_cast<unsigned char>(pending_[run])]) ++run;
  if (run == 0) return;
  last_was_line_feed_ = false;
  if (!overlong_) add_text(pending_.substr(0, run));
  pending_.remove_prefix(run);
}

void json_array_reader::add_text(std::string_view text) {
  text_ += text;
  if (text_.size() > MAX_LINE) {
    // Skip the rest of it without holding it.
    overlong_ = true;
    std::string().swap(text_);
  }
}

bool json_array_reader::next_chunk(line_chunk& chunk, size_t target) {
  chunk.first_line = 0;
  chunk.data.clear();
  chunk.line_numbers.clear();
  while (chunk.data.size() < target && state_ != state::done) {
    if (pending_.empty() && !in_.next_bytes(pending_)) {
      finish_input();
    } else {
      while (!pending_.empty()) {
        if (state_ == state::element && !escaped_) take_run();
        if (pending_.empty()) break;
        const char c = pending_.front();
        pending_.remove_prefix(1);
        if (take(c)) break;
      }
    }
    if (have_ready_) {
      chunk.data.insert(chunk.data.end(), ready_.begin(), ready_.end());
      chunk.data.push_back('\n');
      chunk.line_numbers.push_back(ready_line_);
      have_ready_ = false;
    }
  }
  chunk.size = chunk.data.size();
  chunk.data.resize(chunk.size + CHUNK_PADDING, '\0');
  return chunk.size > 0;
}

bool json_array_reader::take(char c) {
  const uint64_t line = line_;
  if (c == '\n') ++line_;
  last_was_line_feed_ = c == '\n';
  switch (state_) {
    case state::before:
      if (blank(c)) return false;
      if (c == '[') {
        state_ = state::between;
      } else {
        bad_(line, "not a JSON array");
        state_ = state::done;
      }
      return false;
    case state::between:
      if (blank(c)) return false;
      if (c == ',' || (c == ']' && need_element_)) {
        bad_(line, "an empty element in the array");
        state_ = c == ']' ? state::after : state::between;
        need_element_ = false;
        return false;
      }
      if (c == ']') {
        state_ = state::after;
        return false;
      }
      state_ = state::element;
      need_element_ = false;
      start_line_ = line;
      break;
    case state::element:
      break;
    case state::after:
      if (!blank(c)) {
        bad_(line, "data after the end of the array");
        state_ = state::done;
      }
      return false;
    case state::done:
      return false;
  }
  return take_in_element(c);
}

bool json_array_reader::take_in_element(char c) {
  if (in_string_) {
    if (escaped_) {
      escaped_ = false;
    } else if (c == '\\') {
      escaped_ = true;
    } else if (c == '"') {
      in_string_ = false;
    }
  } else if (c == '"') {
    in_string_ = true;
  } else if (depth_ == 0 && (c == ',' || c == ']')) {
    end_element(c == ']' ? state::after : state::between);
    need_element_ = c == ',';
    return true;
  } else if (c == '{' || c == '[') {
    ++depth_;
  } else if ((c == '}' || c == ']') && depth_ > 0) {
    --depth_;
  }
  const char byte = c != '\n' ? c : in_string_ ? LINE_FEED_IN_STRING : ' ';
  if (!overlong_) add_text(std::string_view(&byte, 1));
  return false;
}

void json_array_reader::end_element(state next) {
  while (!text_.empty() && blank(text_.back())) text_.pop_back();
  if (overlong_) {
    bad_(start_line_, "observation longer than " + std::to_string(MAX_LINE >> 20) + " MiB");
  } else {
    ready_.swap(text_);
    ready_line_ = start_line_;
    have_ready_ = true;
  }
  text_.clear();
  depth_ = 0;
  in_string_ = escaped_ = overlong_ = false;
  state_ = next;
}

void json_array_reader::finish_input() {
  const state was = state_;
  state_ = state::done;
  if (in_.failed() || was == state::after || was == state::done) return;
  // A complete last element still counts; one cut off is part of the problem.
  const bool complete = depth_ == 0 && !in_string_;
  if (was == state::element && complete) end_element(state::done);
  const uint64_t last_line = line_ > 1 && last_was_line_feed_ ? line_ - 1 : line_;
  bad_(last_line, was == state::before ? "not a JSON array" : "the input ends inside the array (no closing ']')");
}
