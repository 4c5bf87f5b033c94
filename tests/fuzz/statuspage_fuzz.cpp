// Any bytes as a status page, and a good page with any bytes in it: what kavo-stat
// prints of it ends, and stays inside.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kavo-stat/output.h"
#include "status/statusreader.h"

namespace {

void show(std::string const& first, std::string const& second) {
  try {
    auto const page = statusOf(first, second);
    std::uint64_t number = 0;
    tableOf(*page);
    jsonOf(*page);
    metricsOf(*page);
    eventsAfter(*page, number);
  } catch (StatusError const&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const raw(reinterpret_cast<char const*>(data), size);
  show(raw, raw);
  static kv_status_page page;
  page = {};
  std::memcpy(page.process.magic, KV_STATUS_MAGIC, sizeof page.process.magic);
  page.process.version = KV_STATUS_VERSION;
  page.process.size = sizeof page;
  auto* const bytes = reinterpret_cast<char*>(&page);
  // Pieces of 32 bytes, each behind its place: in the first streams and viewers, or anywhere before them.
  constexpr std::size_t piece = 32;
  std::size_t const places[] = {0, offsetof(kv_status_page, streams), offsetof(kv_status_page, viewers)};
  std::string good(bytes, sizeof page);
  for (std::size_t at = 0; at + 2 < size; at += 2 + piece) {
    std::size_t const place = places[data[at] % 3] + std::size_t{data[at + 1]} * 8;
    std::size_t const length = std::min(piece, size - at - 2);
    std::copy_n(data + at + 2, length, good.begin() + static_cast<std::ptrdiff_t>(place));
  }
  show(good, good);
  return 0;
}
