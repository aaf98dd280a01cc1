#pragma once

namespace tavrel::controller {

/// The product's name in large letters, its version and its edition, on standard output.
void printBanner();

}  // namespace tavrel::controller
