# libvantix: the two commands of the README.
#   make demo   install what is missing, build, run the demo
#   make test   install what is missing, build, run the tests (plain,
#               AddressSanitizer + UndefinedBehaviorSanitizer, ThreadSanitizer)
SHELL := /bin/bash
JOBS ?= $(shell nproc)
DEMO_OUT ?= demo-output

# Debian 12 packages the build needs, and those only the demo needs.
PACKAGES := g++ make cmake ninja-build pkg-config binutils \
            libopencv-core-dev libopencv-imgproc-dev libopencv-features2d-dev \
            libopencv-imgcodecs-dev libgtest-dev libbenchmark-dev libcli11-dev \
            opencv-doc
# opencv-doc's example photos are test data and demo input.
DEMO_PACKAGES :=
# Only the tests need these: python3-numpy and python3-pytest run the Python
# binding's tests (python3-pil reads opencv-doc's photos for them; without it
# those tests would be skipped), chromium renders the demo's HTML report,
# clang and its runtime build the fuzz targets.
TEST_PACKAGES := python3 python3-numpy python3-pytest python3-pil chromium clang libclang-rt-14-dev

CONFIGURE = cmake -S . -G Ninja -Wno-dev
.PHONY: all deps deps-demo deps-test build demo test test-plain test-asan test-tsan test-python test-install test-fuzz bench clean

all: build

# Installs the missing packages when run as root; otherwise prints the
# apt-get line to run and stops.
define install_missing
	@missing=""; \
	for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "== installing:$$missing"; \
	    export DEBIAN_FRONTEND=noninteractive; \
	    apt-get update -qq && apt-get install -y -qq --no-install-recommends $$missing; \
	  else \
	    echo "Missing Debian packages. Run as root:"; \
	    echo "  apt-get install -y --no-install-recommends$$missing"; \
	    exit 1; \
	  fi; \
	fi
endef

deps:
	$(call install_missing,$(PACKAGES))

deps-demo: deps
	$(call install_missing,$(DEMO_PACKAGES))

deps-test: deps
	$(call install_missing,$(TEST_PACKAGES))

build: deps
	$(CONFIGURE) -B build -DCMAKE_BUILD_TYPE=Release
	cmake --build build -j $(JOBS)

# The demo builds only what it runs: the library, the tool and the simulated
# camera it films with (no tests, no benchmarks).
demo: deps-demo
	$(CONFIGURE) -B build -DCMAKE_BUILD_TYPE=Release
	cmake --build build -j $(JOBS) --target vantix_tool vantix_simcam
	./build/tools/vantix/vantix demo --out $(DEMO_OUT)

test: test-plain test-asan test-tsan test-python test-install test-fuzz
	@echo "== all test runs passed"

test-plain: deps-test build
	cd build && ctest --output-on-failure -j $(JOBS)

test-asan: deps-test
	$(CONFIGURE) -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTIX_SANITIZE=address \
	  -DVANTIX_BUILD_BENCH=OFF
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j $(JOBS)

test-tsan: deps
	$(CONFIGURE) -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTIX_SANITIZE=thread \
	  -DVANTIX_BUILD_BENCH=OFF
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
	  ctest --output-on-failure -L threads -j $(JOBS)

test-python: deps-test build
	sh python/run_tests.sh build

# Installs the plain tree into build-install/prefix and builds the examples
# against it with CMake and with pkg-config.
test-install: build
	bash examples/check_install.sh . build-install build

# Each libFuzzer target (ASan + UBSan, built with clang in build-fuzz) runs
# for FUZZ_SECONDS from its seed corpus in fuzz/corpus.
FUZZ_SECONDS ?= 60
test-fuzz: deps-test
	bash fuzz/run.sh $(FUZZ_SECONDS)

bench: build
	for b in build/bench/bench_*; do $$b; done

clean:
	rm -rf build build-asan build-tsan build-install build-fuzz $(DEMO_OUT)
