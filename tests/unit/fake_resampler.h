#ifndef ZEV_TESTS_FAKE_RESAMPLER_H
#define ZEV_TESTS_FAKE_RESAMPLER_H

#include <functional>

/*!
 * Stands before the library's resampler, whose failures cannot be had from outside: the program is linked
 * with --wrap for swr_alloc, swr_init, swr_convert and swr_free.
 *
 * Threads: one.
 */
namespace fakeresampler {

/*! So many calls from now one fails, once; -1 for never. */
extern int convertsUntilFailure;
extern int initsUntilFailure;
/*! Allocated and not freed yet. */
extern int live;
/*! If any, called once before a conversion. */
extern std::function<void()> onConvert;

/*! Nothing fails. `live` stays as it is. */
void reset();

} // namespace fakeresampler

#endif
