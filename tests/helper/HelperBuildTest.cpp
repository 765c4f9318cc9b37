// SPDX-License-Identifier: GPL-3.0-or-later
// The helper that gets installed set-user-ID root carries no sanitizer runtime, in any build
// of the project (the asan preset included): such a runtime would take its options, log files
// among them, from whoever runs it.
#include "Subprocess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace {

const std::string kHelper = THUZZ_DETECTOR_PATH;

}  // namespace

TEST(HelperBuildTest, TheHelperHasNoSanitizerRuntime) {
    std::ifstream in(kHelper, std::ios::binary);
    ASSERT_TRUE(in) << kHelper;
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const char* symbol : {"__asan_init", "__ubsan_handle_", "__tsan_init", "__msan_init"}) {
        EXPECT_EQ(bytes.find(symbol), std::string::npos) << kHelper << " refers to " << symbol;
    }
}

TEST(HelperBuildTest, SanitizerOptionsInTheEnvironmentCreateNoFile) {
    // What a user would try against a set-user-ID copy: make the runtime write where it is told.
    char pattern[] = "/tmp/helper-build-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const fs::path dir = pattern;
    const std::string log = (dir / "log").string();
    const auto r =
        bonkwell::test::run({"env", "ASAN_OPTIONS=verbosity=1:log_path=" + log,
                             "UBSAN_OPTIONS=verbosity=1:log_path=" + log, kHelper, "--version"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.rfind("thuzz-detector ", 0), 0u) << r.out;
    EXPECT_TRUE(fs::is_empty(dir)) << "the helper wrote a sanitizer log into " << dir;
    fs::remove_all(dir);
}
