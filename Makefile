# The two README commands, `make run` and `make test`, plus `make bench` and `make fuzz`.
# Each installs what is missing first, then configures and builds with CMake + Ninja.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
# Seconds per target for `make fuzz`; `make test` gives each 10 s.
FUZZ_SECONDS ?= 60
CMAKE_ARGS ?=
JOBS       ?= $(shell nproc)
ifeq ($(CI),true)
  CMAKE_ARGS += -DWHARFY_WERROR=ON
endif

.PHONY: all deps test-deps build run test unit asan fuzz fuzz-build fuzz-smoke bench format clean install

all: build

deps:
	@scripts/install-deps

test-deps:
	@scripts/install-deps --test

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

run: build
	./$(BUILD)/src/app/wharfy $(ARGS)

# Every test (unit + integration) in the normal build, then the unit tests
# again under AddressSanitizer + UndefinedBehaviorSanitizer, then each fuzz
# target for 10 s from its seeds.
test: test-deps build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	$(MAKE) asan
	$(MAKE) fuzz-smoke

$(ASAN_BUILD)/build.ninja:
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DWHARFY_SANITIZE=ON -DWHARFY_BENCH=OFF \
	  -DWHARFY_INTEGRATION_TESTS=OFF $(CMAKE_ARGS)

asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS) -L unit

# The fuzz targets live in a clang build of their own (libFuzzer, ASan, UBSan).
$(FUZZ_BUILD)/build.ninja:
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_COMPILER=clang++ -DWHARFY_FUZZ=ON -DWHARFY_TESTS=OFF -DWHARFY_BENCH=OFF $(CMAKE_ARGS)

fuzz-build: test-deps $(FUZZ_BUILD)/build.ninja
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzzers

# Each target (or those named in FUZZ_TARGETS) for FUZZ_SECONDS; what they
# find collects in $(FUZZ_BUILD)/fuzz/.
fuzz: fuzz-build
	fuzz/run $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

fuzz-smoke: fuzz-build
	fuzz/run $(FUZZ_BUILD) 10

bench: test-deps build
	cmake --build $(BUILD) -j $(JOBS) --target benchmarks
	./$(BUILD)/bench/wharfy_bench $(BENCH_ARGS)

# Installs wharfy and its systemd user unit under PREFIX (default ~/.local).
PREFIX ?= $(HOME)/.local
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

format:
	find src tests bench fuzz -name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
