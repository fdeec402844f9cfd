#include "ipc/IPCClient.h"
#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {

void TandorTransparentProxyProvider::ipcSendStatusChange(Status status,
                                                         std::optional<std::string_view> content) {
  const auto path = config()->ipcSocketPath;
  if (!path) return;
  const auto sent = [&]() -> std::expected<void, IPCError> {
    auto client = IPCClient::make(*path);
    if (!client) return std::unexpected(client.error());
    if (auto written = client->sendMessage(statusMessageName, makeStatusContent(status, content));
        !written)
      return written;
    return client->close();
  }();
  if (!sent) log("ipc send status change failed:", sent.error());
}

}  // namespace tandor
