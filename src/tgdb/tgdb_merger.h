// Runs one search over several index files and merges equal records.
#pragma once

class tgdb_merger {};
