# The ways in. Everything is built below build/<preset>; CMakePresets.json has the presets.
.DEFAULT_GOAL := help
.PHONY: help setup build demo test sanitize shake fuzz bench bench-smoke soak stacks device aarch64 package format format-check check tidy clean

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 30
SOAK_SECONDS ?= 600
SEEDS ?= 1 2
STACK_SECONDS ?= 60
PRESET ?= release
SANDBOX := platform/standins/orla-sandbox
SOURCES = git ls-files -z -- '*.h' '*.cpp' '*.c'

# $(call build,PRESET) configures and builds.
build = cmake --preset $(1) && cmake --build --preset $(1) -j $(JOBS)

help:  ## this text
	@sed -nE 's/^([a-z0-9-]+):.*## (.*)/make \1\t\2/p' $(MAKEFILE_LIST) | expand -t 20

setup:  ## install the packages needed (root or sudo; nothing to do, nothing done)
	@scripts/setup

build: setup  ## build everything: build/release/bin
	@$(call build,release)

demo: build  ## start the daemon in the sandbox and talk to it
	@scripts/demo

test: build  ## build, and run all tests in the sandbox
	@ctest --preset release

sanitize: setup  ## all tests under address and undefined-behaviour, then thread sanitizer
	@$(call build,asan) && ctest --preset asan
	@$(call build,tsan) && ctest --preset tsan

shake: setup  ## races under the thread sanitizer, calls of the driver held as each of SEEDS (1 2) has it
	@$(call build,tsan) && scripts/shake $(SEEDS)

# What one input may cost, of a fuzzer whose code has to promise that: a message of the greatest
# length in memory, a text in time. The sanitizer's own memory must stay small beside it.
FUZZ_COST = case $$name in \
    envelope_fuzzer) cost="-max_len=4194304 -rss_limit_mb=256";; \
    json_records_fuzzer|tuning_file_fuzzer) cost="-max_len=65536 -timeout=2";; \
    *) cost=;; esac

fuzz: setup  ## run each fuzzer for FUZZ_SECONDS (30) from its corpus in tests/corpus
	@$(call build,fuzz)
	@set -e; for fuzzer in build/fuzz/bin/*_fuzzer; do \
	    name=$${fuzzer##*/}; found=build/fuzz/found/$$name; mkdir -p $$found; \
	    echo "== $$name: $(FUZZ_SECONDS) s"; $(FUZZ_COST); \
	    ASAN_OPTIONS=quarantine_size_mb=8 ORLA_LOG_FILE=/tmp/log $(SANDBOX) --quiet --bind $$found -- \
	        $$fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=2048 $$cost \
	        -verbosity=0 -print_final_stats=1 -artifact_prefix=$(CURDIR)/$$found/ $(CURDIR)/$$found tests/corpus/$$name; \
	done

bench: build  ## run all benchmarks (some minutes), with one table at the end
	@scripts/bench

bench-smoke: build  ## run each benchmark once and short, to see that it still runs
	@scripts/bench --smoke

soak: build  ## jobs, pulls and log requests for SOAK_SECONDS (600), with an eye on the memory
	@ORLA_BIN=$(CURDIR)/build/release/bin ORLA_SANDBOX=$(CURDIR)/$(SANDBOX) \
	    /usr/bin/python3 tests/soak.py $(SOAK_SECONDS)

stacks: build  ## measure the stacks of the daemon's threads for STACK_SECONDS (60)
	@ORLA_BIN=$(CURDIR)/build/release/bin ORLA_SANDBOX=$(CURDIR)/$(SANDBOX) \
	    ORLA_CHAOS_SECONDS=$(STACK_SECONDS) /usr/bin/python3 -B tests/stack_marks.py $(STACK_SECONDS)

device: setup  ## link the daemon as for a device, against libraries whose driver only fails; start it
	@cmake --preset device -DORLA_PLATFORM_LIBS="$$(scripts/device-stubs build/device-stubs)"
	@cmake --build --preset device -j $(JOBS)
	@scripts/device-start build/device

# A device build is packed as its libraries were chosen, by a porter or by `make device`.
package: setup  ## Debian packages: build/packages/PRESET (release; device: of what build/device has)
	@[ $(PRESET) = release ] || [ -f build/$(PRESET)/CMakeCache.txt ] || \
	    { echo "build/$(PRESET) is not configured; docs/porting.md tells how" >&2; exit 1; }
	@[ $(PRESET) != release ] || cmake --preset release
	@cmake --build build/$(PRESET) -j $(JOBS)
	@rm -rf build/packages/$(PRESET)
	@cd build/$(PRESET) && cpack -B ../packages/$(PRESET) >/dev/null && ls ../packages/$(PRESET)/*deb

# The test preset leaves out the unit tests that start another program of the build, or wait for the
# failure of an exec: qemu's user emulation can do neither.
aarch64:  ## build for the card's processor, and run the unit tests under qemu
	@scripts/setup aarch64
	@$(call build,aarch64) && ctest --preset aarch64

format:  ## put all sources into the house style
	@$(SOURCES) | xargs -0 clang-format -i

format-check:  ## tell which sources are not in the house style
	@$(SOURCES) | xargs -0 clang-format --dry-run -Werror

check: setup format-check  ## style, layers and texts: the checks that need no build
	@scripts/check-layers
	@scripts/check-text

tidy: build  ## clang-tidy over all sources
	@$(SOURCES) | tr '\0' '\n' | grep -E '\.(cpp|c)$$' | grep -v _fuzzer | \
	    xargs -n 4 -P $(JOBS) clang-tidy --quiet -p build/release

clean:  ## remove everything that was built
	@rm -rf build
