# Thin wrapper over CMake. `make demo` and `make test` work on a fresh machine.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all configure build demo test bench clean format format-check \
	check-all check-consumer check-asan check-tsan check-arm check-valgrind check-static check-fuzz \
	check-share mutants

all: build

configure:
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/examples/kel_demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# One table: every benchmark beside its baseline from the same run.
bench: build
	@python3 bench/report.py $(BUILD)

clean:
	rm -rf $(BUILD)

# Quality gates (.ci/steps.sh); `check-all` is what CI runs after `make test`.
STEPS = JOBS=$(JOBS) bash .ci/steps.sh

check-all:
	@$(STEPS) all

check-consumer:
	@$(STEPS) consumer

check-asan:
	@$(STEPS) asan

check-tsan:
	@$(STEPS) tsan

check-arm:
	@$(STEPS) arm

check-valgrind:
	@$(STEPS) valgrind

check-static:
	@$(STEPS) static

check-fuzz:
	@$(STEPS) fuzz

check-share:
	@$(STEPS) share

# Plants each fault of tools/mutate.py in a scratch copy and runs the suite
# against it (slow; not part of CI). ONLY=name,... runs a subset.
mutants:
	@python3 tools/mutate.py -j $(JOBS) $(if $(ONLY),--only $(ONLY))

format:
	@$(STEPS) format

format-check:
	@$(STEPS) format-check
