// Test helpers for the transport: the description of the TransportError a call throws.
// Used only by *_test.cpp files.
#pragma once

#include <functional>
#include <string>

#include "transport/transport.h"

namespace vorn::testing {

// The description of the TransportError that `f` throws, or "<no error>".
inline std::string describe(const std::function<void()>& f) {
  try {
    f();
  } catch (const TransportError& e) {
    return e.description;
  }
  return "<no error>";
}

}  // namespace vorn::testing
