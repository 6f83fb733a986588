# make demo   installs what is missing, builds, and takes a picture of the star field with tvxcam
#             on the large simulated chip: demo.fits, demo.png and a summary.
# make test   installs what is missing, builds with warnings as errors, and runs every test twice:
#             once in a plain build and once under AddressSanitizer and UndefinedBehaviorSanitizer.
BUILD      ?= build
SAN_BUILD  ?= build-san
FUZZ_BUILD ?= build-fuzz
# How long `make fuzz` runs each target; `make test` runs them briefly when clang is present.
FUZZ_SECONDS ?= 60
SMOKE_FUZZ_SECONDS ?= 15
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

# command -> Debian package that provides it
TOOLS    = cmake:cmake ninja:ninja-build g++:g++ gcc:gcc clang-format:clang-format nm:binutils \
           pkg-config:pkg-config fitsverify:fitsverify
PACKAGES = libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libcfitsio-dev libpng-dev
# The INDI driver (built when libindi is found) and indiserver with its clients for its tests.
PACKAGES += libindi-dev indi-bin
# The Python package: its build, its pytest suite, and the venv that pip installs it into.
PACKAGES += python3-dev pybind11-dev python3-setuptools python3-venv python3-numpy \
            python3-astropy python3-pytest python3-photutils python3-ccdproc

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps build san-build test demo bench check-format format clean fuzz fuzz-smoke

all: build

deps:
	@missing=""; \
	for pair in $(TOOLS); do \
	  command -v $${pair%%:*} >/dev/null 2>&1 || missing="$$missing $${pair#*:}"; \
	done; \
	for pkg in $(PACKAGES); do \
	  dpkg -s $$pkg >/dev/null 2>&1 || missing="$$missing $$pkg"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing; \
	fi

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

$(SAN_BUILD)/build.ninja: | deps
	cmake -S . -B $(SAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTVX_SANITIZE=ON $(CMAKE_ARGS)

build: $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

san-build: $(SAN_BUILD)/build.ninja
	cmake --build $(SAN_BUILD) -j $(JOBS)

test: deps check-format build san-build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	cd $(SAN_BUILD) && \
	  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)
	@if command -v clang++ >/dev/null 2>&1; then \
	  $(MAKE) --no-print-directory fuzz FUZZ_SECONDS=$(SMOKE_FUZZ_SECONDS); \
	else echo "clang++ not found: fuzz smoke run skipped"; fi

DEMO_OUTPUTS = demo.fits demo.png

# Old pictures go first, so that a failed run leaves nothing that looks like its result.
demo: deps build
	rm -f $(DEMO_OUTPUTS)
	$(BUILD)/tools/tvxcam/tvxcam snap --ccd data/sim/sim_large.def --scene starfield -e 2000 \
	  -o demo.fits -o demo.png

# Every parser of outside input has a libFuzzer target; each runs from the shipped files.
fuzz: | deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTVX_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# bench       builds optimised, runs the Google Benchmark programs of bench/, then times a frame
#             cycle of 4096 x 4096 against the INDI CCD simulator (Debian package indi-bin).
bench: build
	@for program in $(BUILD)/bench/*_bench; do $$program; done
	bench/frame_cycle.sh $(BUILD)

FORMAT_FILES = $(shell git ls-files '*.h' '*.c' '*.cpp' 2>/dev/null)

check-format: | deps
	@clang-format --dry-run --Werror $(FORMAT_FILES) && echo "clang-format: clean"

format:
	clang-format -i $(FORMAT_FILES)

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(FUZZ_BUILD)
	rm -f $(DEMO_OUTPUTS) tvx.log
