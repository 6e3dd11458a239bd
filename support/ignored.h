#pragma once
// A result that is ignored on purpose.

// Takes a result that nothing can be done about, or that says what the buffer says too: the C library's headers warn of
// one that is simply dropped.
template <typename Result>
constexpr void ignored(Result) {}
