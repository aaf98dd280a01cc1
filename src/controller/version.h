#pragma once

namespace tavrel::controller {

/// The version that the API, the banner and the node records tell.
inline constexpr const char* kVersion = "4.1.0";

}  // namespace tavrel::controller
