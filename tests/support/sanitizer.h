#pragma once

#include <qcompilerdetection.h> // __has_feature, for compilers without it

/// Whether this test is built under a sanitizer: everything takes several times as long, memory is not locked, and
/// signals take a way of their own.
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
constexpr bool IsAddressSanitized = true;
#else
constexpr bool IsAddressSanitized = false;
#endif

#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
constexpr bool IsThreadSanitized = true;
#else
constexpr bool IsThreadSanitized = false;
#endif

constexpr bool IsSanitized = IsAddressSanitized || IsThreadSanitized;
