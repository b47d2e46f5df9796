# Set-up and everyday commands. Every target that builds installs what is
# missing first (scripts/bootstrap).
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: all build programs asan check test demo fuzz bench peers clean bootstrap
MAKEFLAGS += --no-print-directory

all: build

bootstrap:
	@scripts/bootstrap

build: bootstrap
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

asan: bootstrap
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

# Runs every suite twice: optimised, then under ASan + UBSan.
# CTest's summary of the sanitizer run is the last thing printed.
check: build asan
	@echo "== tests (release build)"
	@cd $(BUILD) && ctest -j $(JOBS) --output-on-failure
	@echo "== tests (sanitizer build)"
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest -j $(JOBS) --output-on-failure

test: check

# Just the two programs, quietly.
programs: bootstrap
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target vornsearch ixbake -- --no-print-directory >/dev/null

demo: programs
	@scripts/demo $(BUILD)

fuzz:
	@scripts/bootstrap --fuzz
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_FUZZ=ON >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS)
	@scripts/fuzz $(FUZZ_BUILD) $(FUZZ_SECONDS)

bench: bootstrap
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DVORN_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@scripts/bench $(BUILD)

# vornsearch against ripgrep, grep, codesearch and PostgreSQL over 5 M generated
# observations (installs the peers with apt; takes a quarter of an hour).
# PEERS_ARGS="--observations 500000" for a quick run.
peers: programs
	@bench/peers --build $(BUILD) $(PEERS_ARGS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
