#pragma once

#include <string>

#include "pipeline/gguf_model.h"

namespace tavrel::pipeline {

/// Reads what a model is made of from the header of its GGUF file (versions 2 and 3), never the
/// tensors. Made for files that mean ill: memory and time are bounded by gguf_limits.h, whatever
/// the file says and however large it is.
/// Threads: any, no state. Failure: false, and `out` is as it was.
class GGUFParser {
 public:
  static bool parseMetadata(const std::string& path, GGUFModelMetadata& out);
  /// The same; `reason` tells why it failed, as a text to follow a colon.
  static bool parseMetadata(const std::string& path, GGUFModelMetadata& out, std::string& reason);

  /// Sets `quantization`: the tag in the file's name, else the type that most tensors have.
  static void detectQuantization(GGUFModelMetadata& meta);
  /// Sets the layers' ranges and the places of embedding and output. Needs `tensors`; does nothing
  /// for a model without layers.
  static void computeLayerRanges(GGUFModelMetadata& meta);
};

}  // namespace tavrel::pipeline
