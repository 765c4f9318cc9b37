# SPDX-License-Identifier: GPL-3.0-or-later
# The two commands of the README: `make run` and `make test`.
JOBS ?= $(shell nproc)

.PHONY: all deps build run package test test-default test-asan format check-format clean bench bench-slap-to-sound bench-accel bench-engine bench-ui bench-app bench-e2e-latency

all: build

deps:
	scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

run: build
	./build/default/bin/bonkwell

# The Debian package, built in its own tree for /usr with Debian's usual hardening:
# build/package/bonkwell_<version>_<arch>.deb
package: deps
	cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
		-DBONKWELL_BUILD_TESTS=OFF -DBONKWELL_WERROR=ON \
		"-DCMAKE_C_FLAGS=-D_FORTIFY_SOURCE=2 -fstack-protector-strong" \
		"-DCMAKE_CXX_FLAGS=-D_FORTIFY_SOURCE=2 -fstack-protector-strong" \
		"-DCMAKE_EXE_LINKER_FLAGS=-Wl,-z,relro,-z,now"
	cmake --build build/package -j $(JOBS)
	cd build/package && cpack
	@ls build/package/bonkwell_*.deb

# Warnings are errors here: this is what CI runs.
test: deps
	$(MAKE) test-default test-asan

test-default:
	cmake --preset default -DBONKWELL_WERROR=ON
	cmake --build --preset default -j $(JOBS)
	ctest --preset default -j $(JOBS)

test-asan:
	cmake --preset asan -DBONKWELL_WERROR=ON
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# Benchmarks print figures; they are not part of `make test`.
bench: bench-slap-to-sound bench-e2e-latency bench-accel bench-engine bench-ui bench-app

# The engine client: line throughput, main-thread hop, endless line, launch and idle cost.
bench-engine: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target thuzz_engine_bench
	./build/default/bench/engine/thuzz_engine_bench

# Slap-to-sound latency against private null sinks of PulseAudio and of PipeWire, with the
# buffer sizes side by side (latency and underruns at rest and under load); prints figures.
bench-slap-to-sound: deps
	bench/slap-to-sound/run default

# Slap on a fake accelerometer to sound at a null sink, through the per-user helper and the
# app, next to the bare SDL2_mixer floor of the same run, on PulseAudio and on PipeWire (as
# root; about 3 minutes each).
bench-e2e-latency: deps
	BONKWELL_SOUND_SERVER=pulseaudio bench/e2e-latency/run default
	BONKWELL_SOUND_SERVER=pipewire bench/e2e-latency/run default

# Slap detection on modelled laptop sensors (helper and in-process paths), and the helper's
# idle CPU (about 4 minutes).
bench-accel: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target thuzz-detector accel_detection_quality
	./build/default/bench/accel_detection_quality tests/data/impacts/*.csv
	bench/accel/idle-cpu.sh build/default/bin/Helpers/thuzz-detector

# What the views cost (build times, graph paint, CPU with samples streaming in).
bench-ui: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target ui_bench
	./build/default/bench/ui_bench

# The app itself in a throwaway X session: start to tray icon, RSS, idle CPU while listening
# on an emulated 100 Hz accelerometer, panel closed and open (about 2 minutes).
bench-app: deps
	bench/app/run default

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

check-format:
	git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

clean:
	rm -rf build
