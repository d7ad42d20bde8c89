# varlo: `make run` (build and run the example), `make test` (all tests as a
# 32-bit x86 program and as a big-endian s390x program under qemu, then
# natively with the cross-build test, again under AddressSanitizer +
# UndefinedBehaviorSanitizer, and the thread tests under ThreadSanitizer),
# `make bench`, `make bench-peers` (varlo next to other engines; PEERS_ARGS),
# `make soak`, `make fuzz`, `make install`
# (PREFIX, default /usr/local; DESTDIR honoured), `make package` (a .deb).
SHELL := /bin/bash
MAKEFLAGS += --no-print-directory
JOBS ?= 2
BUILD := build
ASAN := build-asan
TSAN := build-tsan
RELEASE := build-release
PACKAGE := build-package
M32 := build-m32
S390X := build-s390x
# How the big-endian build's programs run here (as in cmake/s390x.cmake).
S390X_RUN := qemu-s390x -L /usr/s390x-linux-gnu
PREFIX ?= /usr/local
FUZZ := build-fuzz
# Seconds each fuzz target runs in `make fuzz`.
FUZZ_SECONDS ?= 90
CMAKE_FLAGS := -DVARLO_WERROR=ON
SOAK ?= 10

.PHONY: run test test-deps test-plain test-m32 test-s390x test-asan test-tsan bench bench-peers soak fuzz fuzz-deps install package deps clean

# Everything the targets need, as COMMAND:PACKAGE (or /FILE:PACKAGE);
# installed when missing (as root with apt-get), or the exact command to run
# is printed. `make package` adds PACKAGE_DEPS, `make test` TEST_DEPS (the
# 32-bit and the s390x builds), `make bench-peers` PEERS_DEPS.
DEPS := cmake:cmake g++:g++ make:make pkg-config:pkg-config /usr/include/gtest/gtest.h:libgtest-dev
PACKAGE_DEPS := dpkg-deb:dpkg dpkg-shlibdeps:dpkg-dev
TEST_DEPS := /usr/src/googletest/googletest/CMakeLists.txt:googletest \
  /usr/lib/gcc/x86_64-linux-gnu/12/32/libstdc++.so:g++-12-multilib /usr/include/x86_64-linux-gnu/gnu/stubs-32.h:g++-12-multilib \
  s390x-linux-gnu-g++:g++-s390x-linux-gnu /usr/s390x-linux-gnu/include/stdio.h:libc6-dev-s390x-cross qemu-s390x:qemu-user
PEERS_DEPS := /usr/include/lmdb.h:liblmdb-dev /usr/include/leveldb/db.h:libleveldb-dev /usr/include/db.h:libdb-dev \
  /usr/include/sqlite3.h:libsqlite3-dev /usr/include/gdbm.h:libgdbm-dev /usr/include/kcpolydb.h:libkyotocabinet-dev \
  gnuplot:gnuplot-nox
deps:
	@missing=""; \
	for d in $(DEPS) $(EXTRA_DEPS); do \
	  what=$${d%%:*}; \
	  case "$$what" in /*) [ -e "$$what" ];; *) command -v "$$what" >/dev/null 2>&1;; esac || missing="$$missing $${d#*:}"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then \
	    echo "installing:$$missing"; \
	    apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y $$missing; \
	  else \
	    echo "missing packages; run: sudo apt-get update && sudo apt-get install -y$$missing"; exit 1; \
	  fi; \
	fi

run: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j$(JOBS) --target varlo_example
	@dir=$$(mktemp -d /tmp/varlo-run-XXXXXX); \
	./$(BUILD)/examples/varlo_example "$$dir/example.db"; rc=$$?; \
	rm -rf "$$dir"; exit $$rc

# The 32-bit and the big-endian builds come first: the native build's
# cross_test runs their cross_driver programs against its own.
test: test-deps test-m32 test-s390x test-plain test-asan test-tsan

test-deps:
	@$(MAKE) deps EXTRA_DEPS="$(TEST_DEPS)"

test-plain:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DVARLO_CROSS_M32="$(CURDIR)/$(M32)/tests/cross_driver" \
	  -DVARLO_CROSS_BE="$(S390X_RUN) $(CURDIR)/$(S390X)/tests/cross_driver" >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# 32-bit x86 (g++-12-multilib) and big-endian s390x (cross compiler, qemu):
# every test, googletest built from its sources for each; -O2 without debug
# information, which takes a third less compile time.
test-m32 test-s390x: test-%:
	cmake -S . -B build-$* $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE=-O2 \
	  -DCMAKE_CXX_FLAGS_RELEASE=-O2 -DCMAKE_TOOLCHAIN_FILE=cmake/$*.cmake >/dev/null
	cmake --build build-$* -j$(JOBS)
	cd build-$* && ctest --output-on-failure -j$(JOBS)

test-asan:
	cmake -S . -B $(ASAN) $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARLO_SANITIZE=address,undefined >/dev/null
	cmake --build $(ASAN) -j$(JOBS)
	cd $(ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j$(JOBS)

test-tsan:
	cmake -S . -B $(TSAN) $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARLO_SANITIZE=thread \
	  -DVARLO_EXTRAS=OFF -DVARLO_TEST_FILTER='thread|shared' >/dev/null
	cmake --build $(TSAN) -j$(JOBS)
	cd $(TSAN) && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j$(JOBS) -L threads

# The benchmark runs twice: first the library built without its meta log
# (only to measure what the log costs), then the real one, which prints its
# figures next to the first run's with the ratio.
bench: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF >/dev/null
	cmake --build $(RELEASE) -j$(JOBS) --target varlo_bench varlo_bench_nolog
	@./$(RELEASE)/bench/varlo_bench_nolog $(BENCH_ARGS) --csv=$(RELEASE)/nolog.csv >$(RELEASE)/nolog.txt || \
	  { cat $(RELEASE)/nolog.txt; exit 1; }
	@sync; sleep 10  # the first run's files are written out and their blocks given back before the second
	./$(RELEASE)/bench/varlo_bench $(BENCH_ARGS) --baseline=$(RELEASE)/nolog.csv

# varlo next to LMDB, LevelDB, Berkeley DB, SQLite, gdbm and Kyoto Cabinet
# (bench/peers): installs them and gnuplot, prints the table, writes
# $(RELEASE)/peers.csv and the chart $(RELEASE)/peers.png. Options through
# PEERS_ARGS, e.g. PEERS_ARGS="--num=200000 --cache_mb=512".
bench-peers:
	@$(MAKE) deps EXTRA_DEPS="$(PEERS_DEPS)"
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF -DVARLO_PEERS=ON >/dev/null
	cmake --build $(RELEASE) -j$(JOBS) --target varlo_peers
	./$(RELEASE)/bench/peers/varlo_peers --csv=$(RELEASE)/peers.csv --png=$(RELEASE)/peers.png $(PEERS_ARGS)

# The library, headers, tools, varlo.pc and the CMake package under PREFIX
# (DESTDIR prepended, for staged installs); a Release build of its own.
install: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null
	cmake --build $(RELEASE) -j$(JOBS)
	DESTDIR="$(DESTDIR)" cmake --install $(RELEASE)
	@if [ -z "$(DESTDIR)" ] && [ "$$(id -u)" = 0 ] && command -v ldconfig >/dev/null; then ldconfig; fi

# A Debian package of the same files under /usr: $(PACKAGE)/varlo_*.deb.
package:
	@$(MAKE) deps EXTRA_DEPS="$(PACKAGE_DEPS)"
	cmake -S . -B $(PACKAGE) -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
	cmake --build $(PACKAGE) -j$(JOBS)
	cd $(PACKAGE) && cpack -G DEB
	@ls $(PACKAGE)/*.deb

# Longer runs of the model, crash and failure tests: SOAK times their seeds,
# batches, crash points and kills; a build of its own with a long time limit.
soak: deps
	cmake -S . -B build-soak $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARLO_TEST_TIMEOUT=36000 >/dev/null
	cmake --build build-soak -j$(JOBS)
	cd build-soak && VARLO_SOAK=$(SOAK) ctest --output-on-failure -j$(JOBS) -L soak

# clang with libFuzzer (Debian's clang and libclang-rt-dev), installed when
# missing like the packages above.
fuzz-deps: deps
	@if ! echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char *, unsigned long) { return 0; }' | \
	    clang++ -x c++ -fsanitize=fuzzer - -o /dev/null >/dev/null 2>&1; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then \
	    echo "installing: clang libclang-rt-dev"; \
	    apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y clang libclang-rt-dev; \
	  else \
	    echo "missing packages; run: sudo apt-get update && sudo apt-get install -y clang libclang-rt-dev"; exit 1; \
	  fi; \
	fi

# Each target runs FUZZ_SECONDS under ASan+UBSan, starting from the seed
# corpus and the regression cases. An allocation over 1 GiB, a hang of 20 s,
# a crash or a sanitizer report stops it; the input that did it is kept in
# fuzz/regressions/TARGET/, which `make test` replays from then on.
fuzz: fuzz-deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARLO_FUZZ=ON -DVARLO_TESTS=OFF \
	  -DVARLO_EXTRAS=OFF -DVARLO_SANITIZE=address,undefined >/dev/null
	cmake --build $(FUZZ) -j$(JOBS) --target fuzz_damaged_file fuzz_call_sequence
	@rc=0; for t in damaged_file call_sequence; do \
	  mkdir -p $(FUZZ)/corpus/$$t fuzz/regressions/$$t; \
	  echo "== fuzzing $$t for $(FUZZ_SECONDS) s"; \
	  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:quarantine_size_mb=64 UBSAN_OPTIONS=print_stacktrace=1 \
	    ./$(FUZZ)/fuzz/fuzz_$$t $(FUZZ)/corpus/$$t fuzz/corpus/$$t fuzz/regressions/$$t \
	    -max_total_time=$(FUZZ_SECONDS) -rss_limit_mb=1024 -malloc_limit_mb=1024 -timeout=20 \
	    -artifact_prefix=fuzz/regressions/$$t/ -print_final_stats=1 2>$(FUZZ)/$$t.log || rc=1; \
	  tail -n 12 $(FUZZ)/$$t.log; \
	done; \
	if [ $$rc != 0 ]; then echo "fuzzing found a failure: see $(FUZZ)/*.log and fuzz/regressions/"; fi; exit $$rc

clean:
	rm -rf $(BUILD) $(ASAN) $(TSAN) $(RELEASE) $(PACKAGE) $(M32) $(S390X) $(FUZZ)
