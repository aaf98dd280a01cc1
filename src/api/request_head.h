#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrel::api {

/// What the engine must know of a request's head before a thread is spent on it: where it ends and
/// how its body is framed. The HTTP library reads the rest.
struct RequestHead {
  enum class State {
    kIncomplete,  ///< more bytes are needed
    kComplete,
    kRefused,  ///< not to be served; `refusal` is the status to answer before closing
  };
  State state = State::kIncomplete;
  int refusal = 0;
  std::size_t size = 0;              ///< bytes of the head, the blank line included
  std::uint64_t content_length = 0;  ///< 0 when there is none
  bool chunked = false;
  bool expects_continue = false;  ///< the body comes only after an answer to the head
  /// Position and size of whole lines to be taken out before the library reads the head.
  std::vector<std::pair<std::size_t, std::size_t>> unwanted;
};

struct HeadLimits {
  std::size_t max_bytes;
  std::size_t max_fields;
  std::uint64_t max_body_bytes;
};

/// The value of a field without the blanks around it.
std::string_view withoutBlanks(std::string_view text);

/// Looks for a whole head at the start of `input`. `searched` is how much of it an earlier call has
/// looked at without finding the end; it is brought up to date.
///
/// Refused are: a head over the limits (431), a body over its limit (413), what does not begin like
/// a request (400), and what two readers could take differently (400): several lengths, a length
/// beside a transfer coding, an unknown coding (501), line ends or NUL inside a line.
///
/// Unwanted is "Range": answers are never given in part, and the library matches its value with a
/// regular expression whose recursion ends the process on a long one.
RequestHead scanRequestHead(std::string_view input, const HeadLimits& limits,
                            std::size_t& searched);

}  // namespace tavrel::api
