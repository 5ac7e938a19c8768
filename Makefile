# Front door. Each target installs what is missing (scripts/install-deps), configures its CMake
# preset and builds in build/<preset>/.
#
#   make demo            Release build of vexlo-tcam, run on the bundled default table
#   make test            Debug build with -Werror, every test through CTest
#   make test-sanitize   the same under AddressSanitizer + UndefinedBehaviorSanitizer
#   make bench           Release build, runs every benchmark program (BENCH_ARGS passed on)
#   make install         Release build installed to $(PREFIX) (default /usr/local), honours DESTDIR
#   make format          clang-format -i on every .h/.cpp of ours
#   make format-check    fails if any file is not formatted
#   make clean           removes build/

PREFIX ?= /usr/local
BENCH_ARGS ?=
CLANG_FORMAT ?= clang-format
CTEST_ARGS = --output-on-failure --parallel 2

SOURCE_DIRS = platform VexloL3Common sim tools tests bench fuzz
FORMAT_FILES = $(shell find $(SOURCE_DIRS) -type f \( -name '*.h' -o -name '*.cpp' \) 2>/dev/null | sort)

.PHONY: deps test-deps demo test test-sanitize bench install format format-check clean

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

format:
	@if [ -n "$(FORMAT_FILES)" ]; then $(CLANG_FORMAT) -i $(FORMAT_FILES); fi

format-check:
	@if [ -n "$(FORMAT_FILES)" ]; then $(CLANG_FORMAT) --dry-run --Werror $(FORMAT_FILES); fi
	@echo "format-check: $(words $(FORMAT_FILES)) files, all formatted"

clean:
	rm -rf build
