// Feeds arbitrary bytes to ixbake's readers: as one JSON observation (whose
// names and record data then go through the DNS parser), as a JSON array
// of them, and as a zone file.
// Bad input must give a reason, never a crash; keys must never hold a tab or
// a line break, since the index's line format relies on that.
#include <stdbool.h>  // before ldns, which otherwise defines bool itself

#include <ldns/ldns.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/ixbake/dns_text.h"
#include "tools/ixbake/input.h"
#include "tools/ixbake/json_array.h"
#include "tools/ixbake/json_record.h"
#include "tools/ixbake/zone_reader.h"

namespace {

void check_key(const std::string& key) {
  if (key.find_first_of("\t\n") != std::string::npos) abort();
}

void fuzz_json(const uint8_t* data, size_t size) {
  static json_line_parser parser;
  static dns_parser dns;
  std::vector<char> buf(data, data + size);
  buf.resize(size + json_line_parser::padding(), '\0');
  json_record rec;
  std::string err;
  if (!parser.parse(buf.data(), size, buf.size(), rec, err)) {
    if (err.empty()) abort();
    return;
  }
  std::string owner;
  if (dns.owner_name(rec.rrname, owner, err)) check_key(owner);
  for (std::string_view text : rec.rdata) {
    std::vector<uint8_t> wire;
    if (dns.parse_rdata(rec.rrtype, text, wire, err)) check_key(dns.rdata_text());
  }
}

// Runs `read` on the bytes opened as an input file.
template <class Read>
void as_input(const uint8_t* data, size_t size, Read&& read) {
  const int fd = memfd_create("input", 0);
  if (fd < 0) return;
  std::string err;
  if (write(fd, data, size) == static_cast<ssize_t>(size)) {
    if (auto in = input_reader::open("/proc/self/fd/" + std::to_string(fd), err)) read(*in);
  }
  close(fd);
}

// Each element must come back as one line, each problem with a reason.
void read_array(input_reader& in) {
  json_array_reader reader(in, [](uint64_t, const std::string& reason) {
    if (reason.empty()) abort();
  });
  line_chunk chunk;
  while (reader.next_chunk(chunk, 256)) {
    const std::string_view lines(chunk.data.data(), chunk.size);
    size_t count = 0;
    for (char c : lines) count += c == '\n';
    if (count != chunk.line_numbers.size() || lines.empty() || lines.back() != '\n') abort();
    std::string_view rest = lines;
    while (!rest.empty()) {
      const size_t nl = rest.find('\n');
      fuzz_json(reinterpret_cast<const uint8_t*>(rest.data()), nl);
      rest.remove_prefix(nl + 1);
    }
  }
}

void read_zone(input_reader& in) {
  static dns_parser dns;
  zone_reader zone(in);
  ldns_rr* rr = nullptr;
  uint64_t line = 0;
  std::string err;
  for (int records = 0; records < 1000; ++records) {
    zone_reader::result r = zone.next(rr, line, err);
    if (r == zone_reader::END) break;
    if (r == zone_reader::BAD) continue;
    std::string owner;
    std::vector<uint8_t> wire;
    dns.take_rr(rr, owner, wire);
    check_key(owner);
    check_key(dns.rdata_text());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte chooses the reader, so one corpus serves them all.
  if (data[0] & 1)
    as_input(data + 1, size - 1, read_zone);
  else if (data[0] & 2)
    as_input(data + 1, size - 1, read_array);
  else
    fuzz_json(data + 1, size - 1);
  return 0;
}
