// The timing of a connector's TCP connections, in seconds: how long a connection may stay silent
// before it is closed, and how often the connector sends a keep-alive on each one. A connection
// timeout of 0 or less switches the keep-alives off. A plain value; no thread rule.
#pragma once

namespace tavrinConnector {

struct ConnectionTimeout {
  int connectionTimeout = 10;
  int keepAliveInterval = 5;
};

}  // namespace tavrinConnector
