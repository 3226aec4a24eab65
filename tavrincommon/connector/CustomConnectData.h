// Application data that travels with a request for a logical connection: kept in the pending
// request, then owned by the handler that serves the connection. Derive from it; it holds nothing.
// No thread rule of its own.
#pragma once

namespace tavrinConnector {

class CustomConnectData {
 public:
  CustomConnectData() = default;
  virtual ~CustomConnectData() = default;
  CustomConnectData(const CustomConnectData&) = default;
  CustomConnectData& operator=(const CustomConnectData&) = default;
};

}  // namespace tavrinConnector
