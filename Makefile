# Everyday targets. The test target is what CI runs (.ci/run).
JOBS    ?= 2
CMAKE   ?= cmake
GEN     := -G Ninja
CTEST   := ctest --output-on-failure -j$(JOBS) --timeout 900

.PHONY: all build install deb test test-normal test-asan test-tsan test-fuzz test-package demo bench \
        format clean

all: build

build:
	$(CMAKE) -S . -B build $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build build -j$(JOBS)

# Installs the programs, manual pages and documentation under $(DESTDIR)$(PREFIX); builds only
# what is installed.
PREFIX  ?= /usr/local
DESTDIR ?=
install:
	$(CMAKE) -S . -B build $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build build -j$(JOBS) --target qx_installed
	DESTDIR="$(DESTDIR)" $(CMAKE) --install build --prefix "$(PREFIX)"

# The Debian package build/package/qx-jpmd_<version>_<arch>.deb of the same files.
deb:
	$(CMAKE) -S . -B build $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build build -j$(JOBS) --target qx_installed
	rm -f build/package/*.deb
	cd build && cpack -G DEB -B package

# The whole suite: a normal build, the package check, ASan+UBSan, ThreadSanitizer, and short
# fuzz runs.
test: test-normal test-package test-asan test-tsan test-fuzz

# The committed code-page tables must be what the generator makes of the system's iconv tables.
test-normal:
	python3 scripts/gen_codepages.py --check
	$(CMAKE) -S . -B build $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build build -j$(JOBS)
	$(CTEST) --test-dir build

test-asan:
	$(CMAKE) -S . -B build-asan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DQX_SANITIZE=address
	$(CMAKE) --build build-asan -j$(JOBS)
	ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  $(CTEST) --test-dir build-asan

test-tsan:
	$(CMAKE) -S . -B build-tsan $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_SANITIZE=thread
	$(CMAKE) --build build-tsan -j$(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(CTEST) --test-dir build-tsan

# Unpacks the package into a temporary root and runs the programs, the example job script and
# the manual pages from there; lintian must find no error. Nothing is installed on the host.
test-package: deb
	scripts/check-package.sh build/package/qx-jpmd_*.deb build

# Each libFuzzer target runs for FUZZ_SECONDS on its committed seed corpus.
FUZZ_SECONDS ?= 20
test-fuzz:
	@if ls fuzz/*.cpp >/dev/null 2>&1; then \
	  $(CMAKE) -S . -B build-fuzz $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DQX_FUZZ=ON && \
	  $(CMAKE) --build build-fuzz -j$(JOBS) --target fuzzers && \
	  FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/run-fuzzers.sh build-fuzz/bin; \
	else echo "no fuzz targets"; fi

# Builds only the messenger and the agent simulator, then runs the messenger against it.
demo:
	$(CMAKE) -S . -B build $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build build -j$(JOBS) --target qx_jpmd qx_agentsim_tool
	@scripts/demo.sh build/bin

bench:
	$(CMAKE) -S . -B build-bench $(GEN) -DCMAKE_BUILD_TYPE=Release
	$(CMAKE) --build build-bench -j$(JOBS)
	@scripts/run-benchmarks.sh build-bench/bin

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h' '*.c')

clean:
	rm -rf build build-asan build-tsan build-fuzz build-bench
