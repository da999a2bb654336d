#ifndef ZEVQTMM_WRAPPING_H
#define ZEVQTMM_WRAPPING_H

#include <type_traits>

// Signed arithmetic that wraps around instead of being undefined: for values that come from other processes,
// and where wrapping is the documented result. Computed in unsigned arithmetic and converted back, which
// every supported compiler defines as modulo 2^N.
namespace wrapping {

template <class T>
constexpr T add(T a, T b)
{
    using Unsigned = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<Unsigned>(a) + static_cast<Unsigned>(b));
}

template <class T>
constexpr T subtract(T a, T b)
{
    using Unsigned = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<Unsigned>(a) - static_cast<Unsigned>(b));
}

template <class T>
constexpr T multiply(T a, T b)
{
    using Unsigned = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<Unsigned>(a) * static_cast<Unsigned>(b));
}

} // namespace wrapping

#endif
