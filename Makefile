# Front door. Each target installs what is missing (scripts/install-deps), configures its CMake
# preset and builds in build/<preset>/.
#
#   make demo            Release build of vexlo-tcam, run on the bundled default table
#   make test            Debug build with -Werror, every test through CTest
#   make test-sanitize   the same under AddressSanitizer + UndefinedBehaviorSanitizer
#   make bench           Release build, runs every benchmark program (BENCH_ARGS passed on)
#   make install         Release build installed to $(PREFIX) (default /usr/local), honours DESTDIR
#   make fuzz            clang FUZZ_PRESET (fuzz: with ASan; fuzz-fast: optimised, no ASan, no cmp tracing), every
#                        libFuzzer target run FUZZ_SECONDS (default 600), inputs capped at
#                        FUZZ_MAX_STEPS route operations (default 128)
#   make fuzz-smoke      a few minutes, fixed seed and FUZZ_SMOKE_RUNS inputs (CI)
#   make fuzz-merge      folds what the fuzzer found that adds coverage into fuzz/corpus/
#   make random-long     Release build, RANDOM_OPS (default 10 M) seeded random TCAM operations
#   make format          clang-format -i on every .h/.cpp of ours
#   make format-check    fails if any file is not formatted
#   make clean           removes build/

PREFIX ?= /usr/local
BENCH_ARGS ?=
CLANG_FORMAT ?= clang-format
CTEST_ARGS = --output-on-failure --parallel 2
FUZZ_SECONDS ?= 600
FUZZ_JOBS ?= 1
FUZZ_SMOKE_RUNS ?= 25000
FUZZ_MAX_STEPS ?= 128
FUZZ_PRESET ?= fuzz
FUZZ_TARGETS = $(basename $(notdir $(wildcard fuzz/*Fuzz.cpp)))

SOURCE_DIRS = platform VexloL3Common sim tools tests bench fuzz
FORMAT_FILES = $(shell find $(SOURCE_DIRS) -type f \( -name '*.h' -o -name '*.cpp' \) 2>/dev/null | sort)

.PHONY: deps test-deps demo test test-sanitize bench install fuzz-build fuzz fuzz-smoke fuzz-merge \
        format format-check clean

deps:
	bash scripts/install-deps

test-deps:
	bash scripts/install-deps --test

DEMO_REPORT = build/demo-report.html

demo: deps
	cmake --preset release
	cmake --build --preset release --target vexlo-tcam
	build/release/vexlo-tcam simulate --churn 20000 --report $(DEMO_REPORT)
	@echo "HTML report: $(DEMO_REPORT)"

test: test-deps
	cmake --preset dev -DVEXLO_WERROR=ON
	cmake --build --preset dev
	ctest --preset dev $(CTEST_ARGS)

test-sanitize: test-deps
	cmake --preset sanitize -DVEXLO_WERROR=ON
	cmake --build --preset sanitize
	ctest --preset sanitize $(CTEST_ARGS)

bench: deps
	cmake --preset release
	cmake --build --preset release --target vexlo_benchmarks
	@set -e; found=0; \
	for b in build/release/bench/*Bench; do \
	   [ -x "$$b" ] || continue; found=1; \
	   echo "==> $$b"; "$$b" $(BENCH_ARGS); \
	done; \
	if [ $$found -eq 0 ]; then echo "bench: no benchmark programs (bench/*Bench.cpp) yet"; fi

install: deps
	cmake --preset release -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build --preset release --target vexlo_installables
	DESTDIR="$(DESTDIR)" cmake --install build/release --prefix $(PREFIX)

fuzz-build:
	bash scripts/install-deps --fuzz
	cmake --preset $(FUZZ_PRESET)
	cmake --build --preset $(FUZZ_PRESET)

# Short inputs run many times more often than long ones; an input that fails under the cap fails
# the same way without it (fuzz/README.md).
fuzz: fuzz-build
	@set -e; for t in $(FUZZ_TARGETS); do \
	   FUZZ_BUILD=build/$(FUZZ_PRESET) VEXLO_FUZZ_MAX_STEPS=$(FUZZ_MAX_STEPS) \
	      bash fuzz/run-fuzzer $(FUZZ_SECONDS) $(FUZZ_JOBS) $$t; \
	done

# A fixed seed and number of inputs from the committed corpus, so that CI draws nearly the same
# inputs every time (not exactly: libFuzzer reads the corpus in directory order, which differs
# between clones).
fuzz-smoke: fuzz-build
	@set -e; for t in $(FUZZ_TARGETS); do \
	   rm -rf build/$(FUZZ_PRESET)/smoke/$$t; \
	   FUZZ_BUILD=build/$(FUZZ_PRESET) VEXLO_FUZZ_MAX_STEPS=$(FUZZ_MAX_STEPS) FUZZ_SEED=1 \
	      FUZZ_RUNS=$(FUZZ_SMOKE_RUNS) FUZZ_WORK=build/$(FUZZ_PRESET)/smoke/$$t \
	      bash fuzz/run-fuzzer 300 1 $$t; \
	done

fuzz-merge: fuzz-build
	@set -e; for t in $(FUZZ_TARGETS); do \
	   mkdir -p fuzz/corpus/$$t build/fuzz/corpus/$$t; \
	   build/$(FUZZ_PRESET)/fuzz/$$t -merge=1 -max_len=4096 fuzz/corpus/$$t build/fuzz/corpus/$$t; \
	   echo "fuzz-merge: fuzz/corpus/$$t: $$(ls fuzz/corpus/$$t | wc -l) inputs, $$(du -sk fuzz/corpus/$$t | cut -f1) KB"; \
	done

# The long seeded random run: RANDOM_OPS operations in all, shared evenly among the runs of the
# TcamRandom tests (one per layout: 16 IPv4, multicast, 5 IPv6 beside IPv4; each gets RANDOM_OPS
# divided by the number of runs). The model verifies itself after every operation and the whole
# emulated table is checked every RANDOM_FULL_CHECK operations (997 in `make test`). A Release
# build: the model's assertions and its verification do not depend on NDEBUG, so they stay on.
# RANDOM_LONG_DIR picks the build directory; VEXLO_RANDOM_SEED=N runs other seeds and
# VEXLO_RANDOM_DIGESTS=FILE records every run's digest.
RANDOM_OPS ?= 10000000
RANDOM_FULL_CHECK ?= 3
RANDOM_LONG_DIR ?= build/release
.PHONY: random-long
random-long: deps
	cmake -S . -B $(RANDOM_LONG_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release -DVEXLO_WERROR=ON
	cmake --build $(RANDOM_LONG_DIR) --target L3TcamRandomTest
	VEXLO_RANDOM_TOTAL_OPS=$(RANDOM_OPS) VEXLO_RANDOM_FULL_CHECK=$(RANDOM_FULL_CHECK) \
	   ctest --test-dir $(RANDOM_LONG_DIR) -R '^TcamRandom\.' $(CTEST_ARGS) --timeout 14400

format:
	@if [ -n "$(FORMAT_FILES)" ]; then $(CLANG_FORMAT) -i $(FORMAT_FILES); fi

format-check:
	@if [ -n "$(FORMAT_FILES)" ]; then $(CLANG_FORMAT) --dry-run --Werror $(FORMAT_FILES); fi
	@echo "format-check: $(words $(FORMAT_FILES)) files, all formatted"

clean:
	rm -rf build
