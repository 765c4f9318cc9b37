# SPDX-License-Identifier: GPL-3.0-or-later
# The two commands of the README: `make run` and `make test`.
JOBS ?= $(shell nproc)

.PHONY: all deps build run test test-default test-asan format check-format clean bench-ui

all: build

deps:
	scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

run: build
	./build/default/bin/bonkwell

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

# What the views cost (build times, graph paint, CPU with samples streaming in).
bench-ui: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target ui_bench
	./build/default/bench/ui_bench

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

check-format:
	git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

clean:
	rm -rf build
