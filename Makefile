# The two commands a new machine needs are `make run` and `make test`.
BUILD_DIR    := build
SANITIZE_DIR := build-sanitize
JOBS         ?= 2
CMAKE_GEN    := -G Ninja

.PHONY: all deps build sanitize test run format bench fuzz clean

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B $(BUILD_DIR) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS)

sanitize: deps
	@cmake -S . -B $(SANITIZE_DIR) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKZ_SANITIZE=ON >/dev/null
	@cmake --build $(SANITIZE_DIR) -j $(JOBS)

# The sanitizer build runs the unit tests first; the last line printed is the
# main build's CTest summary.
test: build sanitize
	@cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest -L unit --output-on-failure -j $(JOBS)
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

run: build
	@scripts/demo

bench: build
	@$(BUILD_DIR)/kz_bench --benchmark_out=$(BUILD_DIR)/bench.txt --benchmark_out_format=console \
		> $(BUILD_DIR)/bench.log
	@cat $(BUILD_DIR)/bench.txt

fuzz: deps
	@echo "no fuzz targets yet"

format:
	@clang-format -i $$(git ls-files 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'fuzz/*.cpp')

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) build-fuzz
