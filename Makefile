# kelp: `make run` and `make test` work on a fresh Debian machine; both install
# the Debian packages they need first (as root, or through sudo).
BUILD      ?= build
BUILD_ASAN ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

.PHONY: all deps build run test asan bench format format-check clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS)

# The SNMP agent on the sample model, in the foreground until Ctrl-C, with
# its defaults: udp:127.0.0.1:1161, community public, state (control socket,
# ini, debug log) in $$XDG_STATE_HOME/kelp or ~/.local/state/kelp.
run: build
	@echo "kelpagent: serving data/models/sample.xml on udp:127.0.0.1:1161 (Ctrl-C stops it)."
	@echo "In another terminal, try:"
	@echo "  snmpwalk -v2c -c public 127.0.0.1:1161 1.3.6.1.4.1.61234.20571.1.20"
	@echo "  snmpget -v2c -c public 127.0.0.1:1161 1.3.6.1.4.1.61234.20571.1.20.130.1.1.2.1"
	@echo "  $(BUILD)/bin/kelpctl set 1 Name 'Vorn RX-240 (renamed)'"
	$(BUILD)/bin/kelpagent --model data/models/sample.xml

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# The whole test suite again, built with AddressSanitizer (leak checking on)
# and UndefinedBehaviorSanitizer.
asan: deps
	cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=ON $(CMAKE_ARGS)
	cmake --build $(BUILD_ASAN) -j$(JOBS)
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(JOBS)

# Release build of the benchmarks (bench/), run once.
bench: deps
	cmake -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)
	cmake --build $(BUILD)-bench -j$(JOBS) --target kelp_bench kelpagent kelpimp64 kelpgen agentx_table
	$(BUILD)-bench/bin/kelp_bench

# Formats every tracked C++ source in place (.clang-format); format-check only
# names the files that are not formatted and fails, as CI does first.
format: deps
	git ls-files -z '*.cc' '*.h' | xargs -0 clang-format -i

format-check: deps
	@scripts/check-format.sh

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD)-bench
