// SPDX-License-Identifier: GPL-3.0-or-later
// A set-user-ID copy that is not byte for byte the trusted helper gives its privileges up at
// once, says the engine is out of date and exits with status 4: a copy one byte off, and a
// renamed copy once the trusted helper has been upgraded.
//
// Needs root (as CI has): it makes set-user-ID copies in temporary folders and runs them as
// nobody.
#include "Subprocess.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

const std::string kOutOfDate =
    "the detection engine is out of date and must be reinstalled from Settings (General, "
    "Reinstall)\n";

// Helpers: $1 the helper to copy, $2 a shell step run as root once the copy is in place
// (the copy is "$dir/thuzz-detector", the folder belongs to nobody); then the copy's name
// from $3 is run as nobody for at most 2 s, and its status printed.
const char* kScript = R"sh(
set -e
dir=$(mktemp -d /var/tmp/bonkwell-trust.XXXXXX)
trap 'rm -rf "$dir"' EXIT
chmod 755 "$dir"
chown 65534 "$dir"
cp "$1" "$dir/thuzz-detector"
chown root:root "$dir/thuzz-detector"
chmod 4755 "$dir/thuzz-detector"
eval "$2"
timeout -s TERM 2 setpriv --reuid=65534 --regid=65534 --clear-groups \
    "$dir/$3" --stdio --detect-only --min-amplitude 0.0500 --cooldown 750 </dev/null &&
    st=0 || st=$?
echo "status=$st" >&2
)sh";

bonkwell::test::RunResult runCopy(const std::string& helper, const std::string& step,
                                  const std::string& name = "thuzz-detector") {
    return bonkwell::test::run({"sh", "-c", kScript, "sh", helper, step, name});
}

void expectRefused(const bonkwell::test::RunResult& r) {
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "") << "no device line";
    EXPECT_EQ(r.err, kOutOfDate + "status=4\n");
}

void expectAccepted(const bonkwell::test::RunResult& r) {
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err.find(kOutOfDate), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("status=4\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("status="), std::string::npos) << r.err;
}

}  // namespace

TEST(HelperTrustTest, ACopyOneByteOffTheTrustedHelperRefuses) {
    ASSERT_EQ(::geteuid(), 0u) << "this test makes set-user-ID copies and must run as root";
    expectAccepted(runCopy(THUZZ_DETECTOR_PATH, ""));
    // One byte more at the end: the program still runs, but it is not the trusted helper.
    expectRefused(runCopy(THUZZ_DETECTOR_PATH,
                          "printf x >> \"$dir/thuzz-detector\"; "
                          "chmod 4755 \"$dir/thuzz-detector\""));
}

TEST(HelperTrustTest, ARenamedCopyRefusesOnceTheTrustedHelperIsUpgraded) {
    ASSERT_EQ(::geteuid(), 0u) << "this test makes set-user-ID copies and must run as root";
    // This build of the helper trusts the file at TRUSTED_PATH, which the test controls.
    const std::string trusted = TRUSTED_PATH;
    const std::string install = "mkdir -p \"$(dirname " + trusted + ")\"; cp \"$1\" " + trusted +
                                "; chmod 755 " + trusted + "; ";
    const std::string rename = "mv \"$dir/thuzz-detector\" \"$dir/kept\"; ";
    expectAccepted(runCopy(TRUST_TEST_HELPER, install + rename, "kept"));
    // The package is upgraded: the trusted helper changes, the renamed copy stays behind.
    expectRefused(runCopy(TRUST_TEST_HELPER, install + rename + "printf x >> " + trusted, "kept"));
    bonkwell::test::run({"rm", "-f", trusted});
}
