// SPDX-License-Identifier: GPL-3.0-or-later
// The helper installed setuid root and started by an ordinary user: it opens a root-only
// device file, then runs with every user and group id equal to that user's, no supplementary
// groups, no capabilities and no_new_privs set, and still reports slaps.
//
// Needs root (as CI has): it installs a setuid copy and, in a private mount namespace, puts a
// root-only lis3lv02d `position` file where the helper looks for it.
#include "Subprocess.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

namespace {

const char* kScript = R"sh(
set -e
helper="$1"
dir=$(mktemp -d /var/tmp/bonkwell-privilege.XXXXXX)
trap 'rm -rf "$dir"' EXIT
chmod 755 "$dir"
cp "$helper" "$dir/thuzz-detector"
chown root:root "$dir/thuzz-detector"
chmod 4755 "$dir/thuzz-detector"
unshare -m --propagation private sh -ec '
  mount -t tmpfs -o mode=755 bonkwell-test /sys/devices/platform
  mkdir /sys/devices/platform/lis3lv02d
  p=/sys/devices/platform/lis3lv02d/position
  echo "(0,0,1000)" > $p
  chmod 0400 $p
  echo 20 > /sys/devices/platform/lis3lv02d/rate
  setpriv --reuid=nobody --regid=nogroup --clear-groups \
      "$1" --stdio --detect-only --min-amplitude 0.0500 --cooldown 750 </dev/null &
  pid=$!
  sleep 0.6
  grep -E "^(Uid|Gid|Groups|NoNewPrivs|CapEff|CapPrm):" /proc/$pid/status >&2
  echo "(0,0,1600)" > $p
  sleep 0.15
  echo "(0,0,1000)" > $p
  sleep 0.4
  kill -TERM $pid
  wait $pid
' sh "$dir/thuzz-detector"
)sh";

}  // namespace

TEST(HelperPrivilegeTest, RunsAsTheCallingUserOnceTheDeviceIsOpen) {
    ASSERT_EQ(::geteuid(), 0u) << "this test installs a setuid-root helper and must run as root";
    const auto r = bonkwell::test::run({"sh", "-c", kScript, "sh", THUZZ_DETECTOR_PATH});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;

    // The root-only file was opened before the drop, and reading it still works after.
    EXPECT_EQ(r.firstLine(), "reading lis3lv02d through the position file at 20.0 Hz") << r.out;
    EXPECT_EQ(r.jsonLines().size(), 1u) << r.out;

    const std::string uid = std::to_string(65534);
    auto expectLine = [&](const std::string& pattern) {
        EXPECT_TRUE(std::regex_search(r.err, std::regex(pattern, std::regex::multiline)))
            << pattern << "\n"
            << r.err;
    };
    expectLine("^Uid:\\s+65534\\s+65534\\s+65534\\s+65534$");
    expectLine("^Gid:\\s+65534\\s+65534\\s+65534\\s+65534$");
    expectLine("^Groups:\\s*$");
    expectLine("^NoNewPrivs:\\s+1$");
    expectLine("^CapPrm:\\s+0+$");
    expectLine("^CapEff:\\s+0+$");
}
