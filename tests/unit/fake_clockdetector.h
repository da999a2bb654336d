#ifndef ZEV_TESTS_FAKE_CLOCKDETECTOR_H
#define ZEV_TESTS_FAKE_CLOCKDETECTOR_H

#include <cstdint>

/*! Takes the place of libzev-utils: what the detector reports is set here. */
namespace fakeclock {

extern std::int64_t shiftMs;
extern int starts;

} // namespace fakeclock

#endif
