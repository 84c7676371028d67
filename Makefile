# The two set-up commands are `make run` and `make test`; see README.md.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
CTEST_FLAGS ?= --output-on-failure -j $(JOBS)

.PHONY: check-layers deps build test test-sanitize test-asan test-tsan check-threads format format-check fuzz run bench clean deb test-package

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B build -G Ninja $(CMAKE_FLAGS) >/dev/null
	@cmake --build build -j $(JOBS)

test: build
	cd build && ctest $(CTEST_FLAGS)

# Includes point down the layers; cab/internal/ stays inside the broker.
check-layers:
	@scripts/check-layers

# AddressSanitizer + UBSan over every test, then ThreadSanitizer over the
# tests labelled "tsan" (threads, logger, broker).
test-sanitize: test-asan test-tsan

test-asan: deps
	@cmake -S . -B build-asan -G Ninja -DKIV_SANITIZE=address,undefined -DKIV_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest $(CTEST_FLAGS)

test-tsan: deps
	@cmake -S . -B build-tsan -G Ninja -DKIV_SANITIZE=thread -DKIV_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target kiv_tsan_tests
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  setarch $$(uname -m) -R ctest $(CTEST_FLAGS) -L tsan

# The lock annotations (host/ThreadAnnotations.h) checked by clang: builds the
# libraries, programs and tests in build-clang with -Wthread-safety, where a
# guarded field touched without its lock fails the build.
check-threads: deps
	@CC=clang CXX=clang++ cmake -S . -B build-clang -G Ninja -DKIV_THREAD_SAFETY=ON -DKIV_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-clang -j $(JOBS)

# .clang-format over every C++ file of the checkout (not the build folders):
# `make format` rewrites them, `make format-check` lists those that differ
# and fails.
FORMAT_FILES = git ls-files -z -- '*.cpp' '*.h'
format: deps
	@$(FORMAT_FILES) | xargs -0 clang-format-14 -i --style=file
format-check: deps
	@differ=$$($(FORMAT_FILES) | xargs -0 -n 1 sh -c 'clang-format-14 --style=file "$$0" | cmp -s - "$$0" || echo "$$0"'); \
	  if [ -n "$$differ" ]; then \
	    echo "format-check: these files differ from .clang-format (make format rewrites them):"; \
	    echo "$$differ"; exit 1; fi

# The libFuzzer targets (CAB1 decoder, JSON reader), built with clang, each
# run for FUZZ_SECONDS from its corpus; a finding fails the target.
FUZZ_SECONDS ?= 60
fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DKIV_BUILD_FUZZ=ON -DKIV_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target fuzz_cab1_decode fuzz_json_read
	@for t in cab1_decode:corpus json_read:json-corpus; do \
	  dir=$$(mktemp -d) && cp tests/fuzz/$${t#*:}/* $$dir/ && \
	  echo "fuzz: $${t%%:*} for $(FUZZ_SECONDS) s" && \
	  build-fuzz/tests/fuzz/fuzz_$${t%%:*} -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 $$dir 2>&1 | \
	    grep -E '^(#[0-9]+ *DONE|stat::number_of_executed_units|==[0-9]+==ERROR|SUMMARY)' ; \
	  rc=$${PIPESTATUS[0]}; rm -rf $$dir; [ $$rc -eq 0 ] || exit $$rc; \
	done

# make run [KIV_PORT=N] [KIV_VAR=DIR] [KIV_AUTH=token]: a directory of its
# own on a free (or the given) loopback port; see scripts/run-local.
run: build
	@scripts/run-local

# make deb: kivfoundry_<version>_<arch>.deb in the checkout. It builds only
# the packaged programs, in DEB_BUILD (default build/, configured as make build
# does: -O2 -g, stripped in the package), so after make build or make test it
# only packs; see cmake/KivPackaging.cmake.
DEB_BUILD ?= build
deb: deps
	@cmake -S . -B $(DEB_BUILD) -G Ninja $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(DEB_BUILD) -j $(JOBS) --target kiv_package_contents
	@rm -f $(DEB_BUILD)/kivfoundry_*.deb
	@cd $(DEB_BUILD) && cpack -G DEB >cpack.log 2>&1 || { cat cpack.log; exit 1; }
	@deb=$$(cd $(DEB_BUILD) && ls kivfoundry_*.deb) && cp $(DEB_BUILD)/$$deb . && \
	  echo "$(CURDIR)/$$deb" > $(DEB_BUILD)/deb-file && echo "deb: $$deb"

# Checks the package, and as root installs, upgrades, removes and purges it in
# a throw-away overlay of this machine; see tests/package/test-package.sh.
test-package: deb
	tests/package/test-package.sh "$$(cat $(DEB_BUILD)/deb-file)"

bench: build
	@for b in build/bench/*/bench_*; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf build build-asan build-tsan build-clang build-fuzz
