// Opening files that must be regular files (index files, set files) without
// ever blocking: a FIFO opened for reading would wait for a writer, and a
// device may do anything.
#pragma once

#include <string>

// Opens `path` read-only (close-on-exec) when it is a regular file. On
// failure returns -1 and sets `why` to the system's error text or to what
// the file is instead ("is a directory", "is a FIFO", ...). `size` (when
// given) receives the file's size.
int my_open_regular(const char* path, std::string& why, size_t* size = nullptr);

// Reads the whole regular file `path` into `out`; false with `why` set as
// above (or to the read error).
bool my_read_regular(const char* path, std::string& out, std::string& why);
