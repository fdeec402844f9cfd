#include <cstddef>
#include <memory>
#include <span>

#include "provider/TandorTransparentProxyProvider.h"

int main(int argc, char** argv) {
  using tandor::NETransparentProxyProvider;
  NETransparentProxyProvider::startSystemExtensionMode(
      std::span(argv, static_cast<std::size_t>(argc)),
      []() -> std::shared_ptr<NETransparentProxyProvider> {
        return std::make_shared<tandor::TandorTransparentProxyProvider>();
      });
  tandor::dispatch_main();
}
