// A temporary directory removed with everything in it when the test ends.
#pragma once

#include <string>

class temp_dir {
 public:
  temp_dir();
  ~temp_dir();
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `contents` to `name` inside the directory and returns its path.
  std::string write(const std::string& name, const std::string& contents) const;

 private:
  std::string path_;
};

// The whole contents of a file ("" when it cannot be read).
std::string read_file(const std::string& path);
