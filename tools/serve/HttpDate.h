#pragma once

#include <ctime>
#include <string>

namespace Serve {

/// "Sun, 06 Nov 1994 08:49:37 GMT"
std::string ToHttpDate(std::time_t time);
/// The time now; made once in a second.
const std::string& NowAsHttpDate();
/// "1994-11-06T08:49:37Z"
std::string ToIsoDate(std::time_t time);

}  // namespace Serve
