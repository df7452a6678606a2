// Included first in every source of a macOS build by Zig (cmake/zig-toolchain.cmake). Zig's clang
// defines this macro to switch off the availability marks of Apple's C++ library; without it
// the library refuses, as Apple's own toolchain does, what is newer than the minimum macOS
// (floating-point std::to_chars and std::from_chars among others).
#undef _LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS
