// A host in C++17 whose parts have the names of some of the library's folders; exits 0 when it reaches both.
#include <keel/keel.h>
#include <xfer/xfer.h>

#include <string>

namespace parts {

const char* sys();
const char* keel();
const char* net();
const char* headers();

}  // namespace parts

static_assert(__cplusplus == 201703L, "the library must not raise its hosts' standard");

int main() {
  const std::string own = "the host's own";
  if (parts::sys() != own || parts::keel() != own || parts::net() != own || parts::headers() != own) return 2;
  Keel::setSettingsName("own_parts");
  if (Keel::getSettingsName() != std::string("own_parts")) return 3;
  return xfer_version() == std::string(XFER_VERSION_TEXT) ? 0 : 4;
}
