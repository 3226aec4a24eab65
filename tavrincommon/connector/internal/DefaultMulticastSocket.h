// The socket factory that announce masters and slaves use unless an application gives its own.
#pragma once

#include "tavrincommon/network/MulticastSocket.h"

#include <functional>
#include <memory>

namespace tavrinConnector {
namespace internal {

inline std::function<std::unique_ptr<tavrinNetwork::MulticastSocketInterface>()>
defaultMulticastSocketFactory(tavrinLog::TavrinLogging* logger) {
  return [logger]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
    return std::make_unique<tavrinNetwork::MulticastSocket>(logger);
  };
}

}  // namespace internal
}  // namespace tavrinConnector
