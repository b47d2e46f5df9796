// Verifies an index file completely, as a database's index checker does,
// where the loader and the readers check only what is cheap. A file that
// passes answers every search as the lines it holds say it should.
//
// Checked: the header and the regions (as the loader does); every posting
// list decodes, ascends, stays within the line count and names exactly the
// lines whose keys hold its trigram, and the nref table counts them; every
// line is a record line of the file's kind, and the lines are in the
// search's key order; the line index records each 64th line and its
// checkpoints where they start; the file's time range covers every record.
#pragma once

#include <optional>
#include <string>

// The first fault of the file at `path`, naming the file and the region;
// none when the file is sound.
std::optional<std::string> tgdb_check(const char* path);
