# varlo: `make run` (build and run the example), `make test` (all tests, then
# again under AddressSanitizer + UndefinedBehaviorSanitizer, and the thread
# tests under ThreadSanitizer), `make bench`, `make soak`.
SHELL := /bin/bash
MAKEFLAGS += --no-print-directory
JOBS ?= 2
BUILD := build
ASAN := build-asan
TSAN := build-tsan
RELEASE := build-release
CMAKE_FLAGS := -DVARLO_WERROR=ON
SOAK ?= 10

.PHONY: run test test-plain test-asan test-tsan bench soak deps clean

# Everything the two main targets need; installed when missing (as root with
# apt-get), or the exact command to run is printed.
deps:
	@missing=""; \
	command -v cmake >/dev/null 2>&1 || missing="$$missing cmake"; \
	command -v g++ >/dev/null 2>&1 || missing="$$missing g++"; \
	command -v make >/dev/null 2>&1 || missing="$$missing make"; \
	[ -f /usr/include/gtest/gtest.h ] || missing="$$missing libgtest-dev"; \
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

test: deps test-plain test-asan test-tsan

test-plain:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

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

bench: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF >/dev/null
	cmake --build $(RELEASE) -j$(JOBS) --target varlo_bench
	./$(RELEASE)/bench/varlo_bench $(BENCH_ARGS)

# Longer runs of the model-based tests: SOAK times the seeds and batches.
soak: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && VARLO_SOAK=$(SOAK) ctest --output-on-failure -j$(JOBS) -L model --timeout 7200

clean:
	rm -rf $(BUILD) $(ASAN) $(TSAN) $(RELEASE)
