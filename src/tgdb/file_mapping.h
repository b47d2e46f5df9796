// A whole file mapped read-only, guarded against the file shrinking while it
// is mapped. Reading a page that the file no longer covers raises SIGBUS;
// the guard's handler maps a replacement page there, marks the mapping lost
// and lets the read go on. Readers check lost() after they read and end
// their walk of the file; nothing is unwound across C++ frames.
//
// Replacement pages read as zeros, except within the text region (the
// string table), where they read as tabs: a record line there then still
// holds a tab, which the orderings of record lines rely on, and the zeros
// elsewhere make posting directories and lists read as empty.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

class file_mapping {
 public:
  file_mapping();
  ~file_mapping();
  file_mapping(file_mapping&& o) noexcept;
  file_mapping& operator=(file_mapping&& o) noexcept;

  // Maps `size` bytes of the open file `fd`. False with the system's error
  // text in `err`.
  bool map(int fd, size_t size, std::string& err);
  // Marks [offset, offset + size) as the text region.
  void set_text_region(uint64_t offset, uint64_t size);

  const uint8_t* data() const { return static_cast<const uint8_t*>(addr_); }
  size_t size() const { return len_; }
  // True once the file was found to have shrunk under the mapping.
  bool lost() const { return lost_->load(std::memory_order_relaxed); }

 private:
  void release();

  void* addr_ = nullptr;
  size_t len_ = 0;
  int slot_ = -1;                  // the guard's slot; -1: unguarded (the guard is full)
  const std::atomic<bool>* lost_;  // the slot's flag, or one that stays false
};

// How many mappings the guard can watch at once.
size_t file_mapping_guard_capacity();
