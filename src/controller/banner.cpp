#include "controller/banner.h"

#include <string>

#include "controller/version.h"
#include "platform/console.h"

namespace tavrel::controller {

void printBanner() {
  platform::printText(R"( _____                    _
|_   _|_ ___   ___ __ ___| |
  | |/ _` \ \ / / '__/ _ \ |
  | | (_| |\ V /| | |  __/ |
  |_|\__,_| \_/ |_|  \___|_|

)");
  platform::printLine(std::string("  Version: ") + kVersion);
  platform::printLine("  Controller Edition");
  platform::printLine("");
}

}  // namespace tavrel::controller
