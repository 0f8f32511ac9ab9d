// The system's own header, and text as it takes it. No other file includes windows.h, whose macros would otherwise
// replace names of ours. Only functions that take UTF-16 (…W) are called.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
// Before windows.h, which would bring an older form of it.
#include <winsock2.h>
#include <ws2tcpip.h>
//
#include <windows.h>

// Macros that stand for a function's …A or …W form, or for nothing, where we have names of our own.
#undef CreateFile
#undef DeleteFile
#undef ERROR
#undef GetMessage
#undef IGNORE
#undef MoveFile
#undef NO_DATA
#undef ReplaceFile
#undef SendMessage
#undef Yield
#undef far
#undef interface
#undef near
#undef small

#include <optional>
#include <string>
#include <string_view>

namespace trabex {

// UTF-8 as UTF-16. Each byte that is not of UTF-8 becomes U+FFFD.
std::wstring Wide(std::string_view utf8);

// The same, but nothing for what is no UTF-8.
std::optional<std::wstring> StrictWide(std::string_view utf8);

// UTF-16 as UTF-8. Half of a pair becomes U+FFFD.
std::string Utf8(std::wstring_view utf16);

}  // namespace trabex
