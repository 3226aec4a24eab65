// Test helper: runs a test in a network namespace of its own, so that it may add interfaces and
// addresses without touching the machine's network. The test re-runs itself (only itself) under
// `unshare -rn`; the outer run reports the inner run's outcome, or skips when namespaces are not
// permitted here. Call from the test's body, on the test's main thread:
//
//   TEST_F(WatcherTest, Something) {
//     if (!tavrinTesting::inOwnNetworkNamespace()) return;
//     ASSERT_TRUE(tavrinTesting::runCommand("ip link add v0 type veth peer name v1"));
//     ...
#pragma once

#include <string>

namespace tavrinTesting {

// True inside the namespace (lo is up there): go on with the test. False in the outer run, whose
// outcome (passed, failed or skipped) has already been set: return at once.
bool inOwnNetworkNamespace();

// Runs a shell command (with /usr/sbin and /sbin on the path); true on exit status 0.
bool runCommand(const std::string& command);

// Inside the namespace: marks the outer run as skipped with `reason` when a needed facility is
// missing. The caller skips the inner run itself (GTEST_SKIP() << reason).
void reportSkipToOuterRun(const std::string& reason);

}  // namespace tavrinTesting
