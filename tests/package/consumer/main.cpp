// Smallest program a user of an installed or vendored vorn writes.
#include <vorn/vorn.hpp>

int main() {
  vorn::SexpManager m;
  return m.nil().id() == 0 ? 0 : 1;
}
