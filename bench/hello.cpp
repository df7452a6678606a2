// The start-up yardstick: the smallest C++ program that prints one line through iostream.
#include <iostream>

int main() {
  std::cout << "vorn 0.2.0" << std::endl;
  return 0;
}
