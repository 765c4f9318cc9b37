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
chown "$2" "$dir"  # the copy's folder belongs to the user it serves
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
  setpriv --reuid="$2" --regid="$2" --clear-groups \
      "$1" --stdio --detect-only --min-amplitude 0.0500 --cooldown 750 </dev/null &
  pid=$!
  sleep 0.6
  grep -E "^(Uid|Gid|Groups|NoNewPrivs|CapEff|CapPrm):" /proc/$pid/status >&2 || true
  echo "(0,0,1600)" > $p
  sleep 0.15
  echo "(0,0,1000)" > $p
  sleep 0.4
  kill -TERM $pid 2>/dev/null || true
  wait $pid && st=0 || st=$?
  echo "status=$st" >&2
' sh "$dir/thuzz-detector" "$3"
)sh";

// Runs the setuid copy in a folder owned by `owner`, started by `runner` (uids or names).
bonkwell::test::RunResult runCopy(const std::string& owner, const std::string& runner) {
    return bonkwell::test::run({"sh", "-c", kScript, "sh", THUZZ_DETECTOR_PATH, owner, runner});
}

// An account made for one test and removed again.
struct TestUser {
    explicit TestUser(const std::string& tag)
        : name("bwi13" + tag + std::to_string(::getpid() % 100000)) {
        created = bonkwell::test::run({"useradd", "--system", "--no-create-home", "--shell",
                                       "/usr/sbin/nologin", name})
                      .exitCode == 0;
    }
    ~TestUser() { bonkwell::test::run({"userdel", name}); }
    std::string name;
    bool created = false;
};

}  // namespace

TEST(HelperPrivilegeTest, RunsAsTheCallingUserOnceTheDeviceIsOpen) {
    ASSERT_EQ(::geteuid(), 0u) << "this test installs a setuid-root helper and must run as root";
    const auto r = runCopy("65534", "65534");
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("status=0\n"), std::string::npos) << r.err;

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

TEST(HelperPrivilegeTest, AnotherUserCannotUseSomeoneElsesCopy) {
    ASSERT_EQ(::geteuid(), 0u) << "this test installs a setuid-root helper and must run as root";
    const TestUser owner("a");
    const TestUser other("b");
    ASSERT_TRUE(owner.created && other.created) << "useradd failed";
    const auto r = runCopy(owner.name, other.name);
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    // Refused before anything was opened: no device line, no event, its own status.
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("this copy of the detection engine belongs to another account; each "
                         "user installs their own from Settings\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("status=5\n"), std::string::npos) << r.err;
    // The owner still can.
    const auto mine = runCopy(owner.name, owner.name);
    EXPECT_EQ(mine.firstLine(), "reading lis3lv02d through the position file at 20.0 Hz")
        << mine.out << mine.err;
}
