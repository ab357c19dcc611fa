# The two commands a new machine needs are `make run` and `make test`.
BUILD_DIR    := build
SANITIZE_DIR := build-sanitize
ARM64_DIR    := build-arm64
HOST_ARCH    := $(shell dpkg --print-architecture)
JOBS         ?= 2
CMAKE_GEN    := -G Ninja

.PHONY: all deps test-deps bench-deps arm64-deps deb-deps build sanitize arm64 arm64-build deb deb-check test run format bench fuzz clean

all: build

# Running needs less than testing: chromium, clang, GoogleTest, Node and the
# benchmarks' packages come only with `make test` and `make bench`.
deps:
	@scripts/install-deps

test-deps:
	@scripts/install-deps test

bench-deps:
	@scripts/install-deps bench

arm64-deps:
	@scripts/install-deps arm64

deb-deps:
	@scripts/install-deps deb

build: deps
	@cmake -S . -B $(BUILD_DIR) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS)

sanitize: test-deps
	@cmake -S . -B $(SANITIZE_DIR) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKZ_SANITIZE=ON >/dev/null
	@cmake --build $(SANITIZE_DIR) -j $(JOBS)

# The daemon and its unit tests for 64-bit ARM, cross-built with Debian's
# toolchain; the main build's CTest runs those tests under qemu-user
# (unit-arm64). Neither benchmarks nor fuzz targets: only what the test needs.
arm64: arm64-deps arm64-build

arm64-build:
	@cmake -S . -B $(ARM64_DIR) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DKZ_SYSTEM_TESTS=OFF >/dev/null
	@cmake --build $(ARM64_DIR) -j $(JOBS) --target kz kz_unit_tests

# kz_VERSION_ARCH.deb in the build folder of ARCH (amd64: build/, arm64:
# build-arm64/); README: "Install on a Raspberry Pi or any Debian machine".
ARCH      ?= $(HOST_ARCH)
CROSS     := $(and $(filter arm64,$(ARCH)),$(filter-out arm64,$(HOST_ARCH)))
DEB_DIR   := $(if $(CROSS),$(ARM64_DIR),$(BUILD_DIR))
deb: deb-deps $(if $(CROSS),arm64,build)
	@scripts/make-deb $(ARCH) $(DEB_DIR)

# The amd64 package installed into a Debian 12 root made by debootstrap
# (kept in build/deb-root): apt-get brings its Depends, lighttpd serves the
# page, and a real systemd runs the unit. Not part of `make test`: the root
# and ffmpeg's libraries take minutes to download and install.
deb-check: test-deps deb
	@/usr/bin/python3 -m pytest -q -s -p no:cacheprovider tests/package/test_install.py

# The sanitizer build runs the unit tests first, one at a time (some decode
# audio against the clock, and sanitized code is slow); the last line printed
# is the main build's CTest summary.
test: test-deps build sanitize $(if $(filter arm64,$(HOST_ARCH)),,arm64-build)
	@cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest -L unit --output-on-failure
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

run: build
	@scripts/demo

# Figures go to the terminal; inputs are generated once under build/bench-data.
bench: bench-deps build
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target library_bench ripper_bench playback_bench commands_bench compress_bench backup_bench kz_bench
	@$(BUILD_DIR)/library_bench $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@$(BUILD_DIR)/ripper_bench $(BUILD_DIR)/bench-data
	@$(BUILD_DIR)/compress_bench $(BUILD_DIR)/bench-data
	@$(BUILD_DIR)/playback_bench $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@$(BUILD_DIR)/commands_bench $(BUILD_DIR)/bench-data
	@$(BUILD_DIR)/backup_bench $(BUILD_DIR)/bench-data
	@/usr/bin/python3 bench/web_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@KZ_BIN=$(BUILD_DIR)/kz node bench/web_pages_bench.mjs
	@KZ_BIN=$(BUILD_DIR)/kz node bench/grid_bench.mjs
	@/usr/bin/python3 bench/lookup_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@/usr/bin/python3 bench/radio_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@/usr/bin/python3 bench/zones_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@/usr/bin/python3 bench/snapcast_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@/usr/bin/python3 bench/usb_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@/usr/bin/python3 bench/mpd_bench.py $(BUILD_DIR)/kz $(BUILD_DIR)/bench-data
	@$(BUILD_DIR)/kz_bench --benchmark_out=$(BUILD_DIR)/bench.txt --benchmark_out_format=console \
		> $(BUILD_DIR)/bench.log
	@cat $(BUILD_DIR)/bench.txt

# Builds every libFuzzer target with clang and runs each for FUZZ_SECONDS,
# starting from its corpus under fuzz/corpus/<name without _fuzz>. The upload
# target's library saves run on detached threads that outlive the last input,
# so its leak check at exit would only report those. Every target runs even
# when an earlier one failed (a saved reproducer fails at once until its fix
# lands); the run fails at the end.
FUZZ_DIR     := build-fuzz
FUZZ_SECONDS ?= 60
fuzz: test-deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKZ_FUZZ=ON >/dev/null
	@cmake --build $(FUZZ_DIR) -j $(JOBS)
	@failed=""; for t in $(FUZZ_DIR)/fuzz/*_fuzz; do \
		name=$$(basename $$t _fuzz); mkdir -p $(FUZZ_DIR)/corpus/$$name; \
		echo "fuzzing $$name for $(FUZZ_SECONDS) s"; \
		extra=""; [ $$name = upload ] && extra="-detect_leaks=0"; \
		$$t -max_total_time=$(FUZZ_SECONDS) -max_len=65536 -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/ $$extra \
			$(FUZZ_DIR)/corpus/$$name fuzz/corpus/$$name > $(FUZZ_DIR)/$$name.log 2>&1; \
		rc=$$?; tail -5 $(FUZZ_DIR)/$$name.log; \
		if [ $$rc -ne 0 ]; then tail -40 $(FUZZ_DIR)/$$name.log; failed="$$failed $$name"; fi; \
	done; \
	if [ -n "$$failed" ]; then echo "fuzz targets that failed:$$failed"; exit 1; fi

format:
	@clang-format -i $$(git ls-files 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'fuzz/*.cpp')

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(ARM64_DIR) build-fuzz
