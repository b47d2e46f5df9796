// Splitting a path into its directory and its last name, as dirname and
// basename do but without touching the string.
#pragma once

#include <string>

// The directory part: "." for a bare name, "/" for a name in the root.
std::string path_dir(const std::string& path);
// What follows the last slash.
std::string path_base(const std::string& path);
