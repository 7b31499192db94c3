# The two README commands, `make run` and `make test`, plus `make bench`.
# Each installs what is missing first, then configures and builds with CMake + Ninja.
BUILD      ?= build
ASAN_BUILD ?= build-asan
CMAKE_ARGS ?=
JOBS       ?= $(shell nproc)
ifeq ($(CI),true)
  CMAKE_ARGS += -DWHARFY_WERROR=ON
endif

.PHONY: all deps test-deps build run test unit asan bench format clean install

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
# again under AddressSanitizer + UndefinedBehaviorSanitizer.
test: test-deps build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	$(MAKE) asan

$(ASAN_BUILD)/build.ninja:
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DWHARFY_SANITIZE=ON -DWHARFY_BENCH=OFF $(CMAKE_ARGS)

asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS) -L unit

bench: test-deps build
	cmake --build $(BUILD) -j $(JOBS) --target benchmarks
	./$(BUILD)/bench/wharfy_bench $(BENCH_ARGS)

# Installs wharfy and its systemd user unit under PREFIX (default ~/.local).
PREFIX ?= $(HOME)/.local
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

format:
	find src tests bench -name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
