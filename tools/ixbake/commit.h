// Finished files taking their places together: a reader sees all the old
// files or all the new ones. The old files are kept under other names until
// every rename is done, so a failure part-way can put them back.
#pragma once

#include <string>
#include <vector>

struct replacement {
  std::string tmp;   // a finished file in the directory of `path`
  std::string path;  // the name it takes
};

enum class replace_result { replaced, kept_old, mixed };

// Renames each `tmp` over its `path`, in order. When one rename fails, the
// ones done are undone (old files back, new names removed) and every
// temporary is removed: kept_old, or mixed if something could not be put
// back; `err` says what failed, and what is left where when mixed.
// Interrupts are the caller's to hold.
replace_result replace_together(const std::vector<replacement>& files, std::string& err);
