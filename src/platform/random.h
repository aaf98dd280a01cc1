#pragma once

#include <cstddef>
#include <string>

namespace tavrel::platform {

/// `digits` lower-case hexadecimal digits for ids that must be unlikely to collide but guard
/// nothing (request ids, event ids). Cheap: one generator per thread. Any thread.
std::string randomHex(std::size_t digits);

/// `length` characters drawn uniformly from `alphabet` by the system's cryptographic generator, for
/// keys and tokens. Throws std::system_error when the system has no randomness. Any thread.
std::string secureRandomText(std::size_t length, const std::string& alphabet);

/// A random (version 4) UUID in its 36-character form. Any thread.
std::string generateUUID();

}  // namespace tavrel::platform
