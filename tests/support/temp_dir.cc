#include "tests/support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

temp_dir::temp_dir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vorn-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) abort();
  path_ = pattern;
}

temp_dir::~temp_dir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string temp_dir::write(const std::string& name, const std::string& contents) const {
  std::string p = file(name);
  std::ofstream(p, std::ios::binary) << contents;
  return p;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}
