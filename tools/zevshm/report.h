// A store in words and in JSON.
#ifndef ZEVSHM_REPORT_H
#define ZEVSHM_REPORT_H

#include "json.h"
#include "storereader.h"

#include <cstdint>
#include <string>

namespace zevshm {

// "1280x720 nv12 25 fps, 48000 Hz x 2"
std::string summary(const StoreReport &report);
// Several lines, for a person. `nowUs` is the wall clock, for ages.
std::string describe(const StoreReport &report, int64_t nowUs);
// One object; the member names are listed in the man page.
void writeJson(JsonWriter &json, const StoreReport &report);

// "18.2 MiB"
std::string byteText(uint64_t bytes);
// "2026-01-31 12:34:56.789", local time
std::string timeText(int64_t wallInstantUs);

} // namespace zevshm

#endif
