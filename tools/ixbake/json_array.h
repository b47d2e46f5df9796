// A JSON document holding one array of observations, cut into its elements
// so they are parsed like JSON lines, on the worker threads: each element
// becomes one line of a chunk, numbered by the line it starts on. Line
// feeds inside an element become spaces, or, inside a string where JSON
// forbids them, a byte JSON forbids as well, so what was invalid stays so.
// Memory holds one chunk, whatever the size of the document.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "input.h"

class json_array_reader {
 public:
  // Problems outside the elements (the array left open, data after it),
  // each with its line: one bad record each.
  using bad_fn = std::function<void(uint64_t line, const std::string& reason)>;
  json_array_reader(input_reader& in, bad_fn bad) : in_(in), bad_(std::move(bad)) {}

  // Fills `chunk` with whole elements, about `target` bytes. False when
  // nothing was left.
  bool next_chunk(line_chunk& chunk, size_t target);

 private:
  enum class state { before, between, element, after, done };
  // Takes one byte; true when it ended an element.
  bool take(char c);
  bool take_in_element(char c);
  // Takes the bytes up to the next one that matters.
  void take_run();
  void add_text(std::string_view text);
  void end_element(state next);
  void finish_input();

  input_reader& in_;
  bad_fn bad_;
  state state_ = state::before;
  std::string_view pending_;  // bytes read but not yet taken
  uint64_t line_ = 1;
  bool last_was_line_feed_ = false;
  bool need_element_ = false;  // after a comma
  // The element being read.
  std::string text_;
  uint64_t start_line_ = 0;
  int depth_ = 0;
  bool in_string_ = false, escaped_ = false, overlong_ = false;
  // Elements complete but not yet in a chunk: text and line.
  std::string ready_;
  uint64_t ready_line_ = 0;
  bool have_ready_ = false;
};
