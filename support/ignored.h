#pragma once

// Discards a result that we cannot act on, or that the buffer already tells us. The C library's headers warn when such
// a result is simply dropped.
template <typename Result>
constexpr void ignored(Result) {}
