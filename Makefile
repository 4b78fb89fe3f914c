# Entry points; the real build is CMake. See README.md.
JOBS ?= $(shell nproc)
ASAN_DIR  := build/asan
TSAN_DIR  := build/tsan
LOCKS_DIR := build/locks
REL_DIR   := build/release
CMAKE_COMMON := -DCMAKE_EXPORT_COMPILE_COMMANDS=ON

FUZZ_SECONDS ?= 30

.PHONY: deps test test-asan test-tsan test-locks fuzz-ci run bench release format clean

deps:
	@scripts/install-deps.sh

# Every test, under AddressSanitizer + UndefinedBehaviorSanitizer, then the
# concurrency tests (label "concurrency", all in the storage) under
# ThreadSanitizer, then the lock-checking Clang build, then every fuzz target
# for a short while.
test: deps test-asan test-tsan test-locks fuzz-ci

test-asan:
	cmake -S . -B $(ASAN_DIR) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Debug -DLOOPSTORE_SANITIZE=address -DLOOPSTORE_BUILD_BENCH=OFF
	cmake --build $(ASAN_DIR) -j $(JOBS)
	cd $(ASAN_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

test-tsan:
	cmake -S . -B $(TSAN_DIR) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Debug -DLOOPSTORE_SANITIZE=thread \
		-DLOOPSTORE_BUILD_BENCH=OFF -DLOOPSTORE_BUILD_HOST=OFF
	cmake --build $(TSAN_DIR) -j $(JOBS)
	cd $(TSAN_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600 -L concurrency

# Everything (platform, storage, host, tests) built by Clang with its
# thread-safety analysis and every warning an error: a lock taken out of
# order, or guarded state touched without its lock, fails here. Nothing runs.
test-locks:
	cmake -S . -B $(LOCKS_DIR) $(CMAKE_COMMON) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
		-DLOOPSTORE_WERROR=ON -DLOOPSTORE_BUILD_BENCH=OFF
	cmake --build $(LOCKS_DIR) -j $(JOBS)

# Builds the libFuzzer targets (Clang, build/fuzz) and runs each for
# FUZZ_SECONDS from its seeds in fuzz/corpus; any finding fails. Longer runs of
# one target: scripts/fuzz TARGET MINUTES (see fuzz/README.md).
fuzz-ci: deps
	JOBS=$(JOBS) scripts/fuzz --ci $(FUZZ_SECONDS)

release: deps
	cmake -S . -B $(REL_DIR) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release -DLOOPSTORE_BUILD_HOST=ON
	cmake --build $(REL_DIR) -j $(JOBS)

# loopstore against a plain baseline (bench/Host/StoreVsBaseline): at this
# size it takes a few minutes; --scale 1 is the full 2 GiB + 16 GiB run. The
# second loopstore column runs with the library's own cache bounds.
STORE_BENCH_ARGS ?= --scale 0.1 --compare-defaults

bench: release
	@for b in $$(find $(REL_DIR)/bench -type f -name "*_bench" -perm -u+x | sort); do echo "== $$b"; $$b --benchmark_min_time=0.2; done
	@echo "== store_vs_baseline $(STORE_BENCH_ARGS)"
	$(REL_DIR)/bench/Host/StoreVsBaseline/store_vs_baseline $(STORE_BENCH_ARGS)

# The main job: a self-checking demonstration of the whole storage (server,
# tracks that loop, protection, read back, restart), then the page in a
# browser on live tracks until Ctrl-C. See README.md.
run: release
	$(REL_DIR)/Host/Cli/loopstore demo --keep-serving

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
