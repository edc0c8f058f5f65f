#pragma once

#include <memory>

#include "ZelkorTURN/TURNServer.h"

namespace zk {

/// What the allocation table knows of the server: a provider that opens a relay for whichever
/// client the server is serving. Weak, since the server owns the table and the table owns this.
class PerClientRelayProxy final : public TURNRelayProvider {
 public:
  explicit PerClientRelayProxy(std::weak_ptr<TURNServer> server) : server_(std::move(server)) {}

  /// Throws AllocationError when the server is gone.
  RelayedAddress allocateRelay() override;

 private:
  const std::weak_ptr<TURNServer> server_;
};

}  // namespace zk
