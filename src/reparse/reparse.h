// Parse trees of search expressions: the regular-expression and glob parsers
// that build them, the writer that turns a tree back into regular-expression
// text, and a debug dump.
//
// The tree-building operations normalise as they go, so every consumer may
// rely on these properties of a finished tree:
//  - a sequence never holds a sequence (nested ones are spliced in);
//  - members of a sequence carry no anchors (anchors are hoisted onto the
//    sequence; unwrapping may copy them onto the element that replaces a
//    sequence or group, i.e. onto a root or a group alternative);
//  - a class never has exactly one member, unless that member is byte 255;
//  - min <= max everywhere; RE_UNBOUNDED in max means "no upper bound";
//  - a tree returned by a parser is at most RE_MAX_DEPTH levels deep, so
//    consumers may walk it recursively.
//
// Literal text is stored without the terminating zero byte that a literal
// gets once it sits in a sequence: the stored size is one less than the
// terminated count, and text never contains a zero byte. Where a zero byte
// would have been appended as content (a glob's trailing backslash, a
// one-member class of byte 0) nothing is stored, since writers and walkers
// skip zero bytes anyway.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

enum re_elem_type : uint32_t {
  re_elem_sequence = 0,  // children matched one after the other
  re_elem_group = 1,     // children are alternatives
  re_elem_class = 2,     // a set of byte values
  re_elem_literal = 3,   // literal bytes
};

// The largest repetition bound; as a maximum it means unbounded.
inline constexpr uint32_t RE_UNBOUNDED = 65535;
// Deepest tree (in levels, a leaf alone being 1) the regular-expression
// parser returns; deeper input is refused rather than risking the stack of
// every recursive consumer.
inline constexpr size_t RE_MAX_DEPTH = 1000;
// Most repetitions nested in one another ("a+++", "((a*)+){2}") a regular
// expression may hold: the matcher's compile time grows exponentially with
// this nesting, so deeper ones are refused instead of stalling the search.
inline constexpr size_t RE_MAX_REPEAT_NESTING = 16;

// The complexity budget of a pattern (see re_elem_within_budget).
inline constexpr size_t PATTERN_MAX_STATES = 64;         // classes, wildcards, repeated characters
inline constexpr size_t PATTERN_MAX_SPAN = 512;          // optional characters of bounded repetitions
inline constexpr size_t PATTERN_MAX_WRITTEN_OUT = 1024;  // characters added by writing out repeated groups
inline constexpr size_t PATTERN_MAX_SKIP_LINKS = 2048;   // links across optional parts in a row

// 256-bit byte set: byte c is bit c % 64 of word c / 64.
using re_class_bits = std::array<uint64_t, 4>;

struct re_elem;
using re_elem_ptr = std::unique_ptr<re_elem>;

struct re_elem {
  re_elem_type type = re_elem_sequence;
  bool anchor_start = false;
  bool anchor_end = false;
  uint32_t min = 1;
  uint32_t max = 1;
  std::vector<re_elem_ptr> children;  // sequence members or group alternatives
  re_class_bits bits{};               // class members
  std::string text;                   // literal bytes, no terminator
  // Offset in the expression of the text the element was parsed from, for
  // messages about it; 0 for elements made by later passes.
  uint32_t pos = 0;

  re_elem() = default;
  explicit re_elem(re_elem_type t) : type(t) {}
  re_elem(re_elem&&) = default;
  re_elem& operator=(re_elem&&) = default;
  // Frees descendants without recursion, so deep trees cannot exhaust the stack.
  ~re_elem();

  bool class_has(unsigned char c) const { return (bits[c >> 6] >> (c & 63)) & 1; }
  void class_set(unsigned char c) { bits[c >> 6] |= uint64_t{1} << (c & 63); }
  size_t class_count() const;
  bool class_is_universal() const;
  // Children of a sequence or group; 0 for classes and literals.
  size_t child_count() const {
    return type == re_elem_sequence || type == re_elem_group ? children.size() : 0;
  }
};

// ---- Tree building (shared by both parsers) ----
// Operations that can fail return false and, when `err` is non-null, store
// the message there; `pos` is the 0-based byte offset reported in it. On
// failure every element stays owned by one of the caller's pointers.

re_elem_ptr re_elem_init(re_elem_type type);
void re_elem_free(re_elem_ptr& e);
// A new element of `type` parsed from offset `pos`.
re_elem_ptr re_elem_at(re_elem_type type, int pos);
// Deep copy.
re_elem_ptr re_elem_clone(const re_elem& e);
// Removes and returns the last element; null when empty.
re_elem_ptr elemvec_pop(std::vector<re_elem_ptr>& vec);

bool anchor_start(re_elem& seq, std::string* err, int pos);
bool anchor_end(re_elem& seq, std::string* err, int pos);
// Appends `pending` (which may be null) to `seq`, normalising on the way;
// `pending` is null afterwards on success. Besides the merges of plain
// literals, a run of one class repeated without an upper bound collapses
// into one repetition ("a.*.*b" is "a.*b", "[a-z]+[a-z]*" is "[a-z]+"):
// both mean the same, and long runs stall the matcher's compiler.
bool sequence_add(re_elem& seq, re_elem_ptr& pending, std::string* err, int pos);
// Appends a finished alternative (a sequence) to `group`; `seq` is null
// afterwards. `empty_kinds`, when given, tracks which anchor combinations of
// empty alternatives the group already holds (bit start + 2 * end), so that
// long groups need no rescan; it must start at 0 for a new group.
void group_add(re_elem& group, re_elem_ptr& seq, unsigned* empty_kinds = nullptr);
// Makes `pending` the element that repetition operator `op` applies to.
bool rep_start(re_elem& seq, re_elem_ptr& pending, char op, std::string* err, int pos);
void sequence_unwrap(re_elem_ptr& e);
void group_unwrap(re_elem_ptr& e);

// Levels of the tree below and including `e` (null: 0); iterative.
size_t re_elem_depth(const re_elem* e);
// Repeated elements (bounds other than {1,1}) nested in one another along
// the deepest path below and including `e`.
size_t re_elem_repeat_depth(const re_elem* e);

// False, with "Pattern too complex at %d: ..." naming the element where the
// pattern went over budget, when compiling the pattern's matcher would take
// too long. Repeated groups count once per copy.
bool re_elem_within_budget(const re_elem& root, std::string* err);

// ---- Parsers ----
// Both return null on error, with the message in *err when err is non-null.
re_elem_ptr regex_parse(const char* text, std::string* err);
re_elem_ptr glob_parse(const char* text, std::string* err);

// Parses the bracket expression at `cursor` (which must be on its "[";
// `pos` is that "["'s offset). On success `pending` holds a new class and
// `cursor` is on the closing "]". `negchar` negates when it follows "[".
bool bracket_parse(const char*& cursor, re_elem_ptr& pending, char negchar, std::string* err,
                   int pos);

// The POSIX class names usable in bracket expressions. Each filler ORs its
// class into `bits` and returns the number of words written (4). The sets
// are computed once, on first use, safely from any thread.
struct class_table_entry {
  const char* name;  // delimiters included, e.g. "[:alpha:]"
  int (*fill)(re_class_bits& bits);
};
std::span<const class_table_entry> class_table();

// ---- Writer ----
std::string re_elem_serialize(const re_elem& root);
void serialize_elem(const re_elem* e, std::string& out);
void serialize_repeat(uint32_t min, uint32_t max, std::string& out);
void serialize_class_char(unsigned char c, std::string& out);

// ---- Debug dump ----
// One line per element, each starting with `prefix`.
std::string re_elem_dump_text(const re_elem* e, std::string_view prefix, int depth = 0);
// Writes the dump to the log stream, with the log prefix, when `level` is enabled.
void re_elem_dump(const re_elem* e, int level, int depth = 0);

// Checks the properties listed at the top of this file; returns a short
// description of the first violation, or null when the tree is sound.
const char* re_elem_check(const re_elem& root);
