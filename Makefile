# Thin wrapper over CMake. `make demo` and `make test` work on a fresh machine.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all configure build demo test bench clean

all: build

configure:
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/examples/kel_demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD)/bench/bench_*; do [ -x "$$b" ] && "$$b" --benchmark_min_time=0.2 || exit 1; done

clean:
	rm -rf $(BUILD)
