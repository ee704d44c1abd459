# kelp: `make run` and `make test` work on a fresh Debian machine; both install
# the Debian packages they need first (as root, or through sudo).
BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_TSAN ?= build-tsan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# The development build (make run, make test) is unoptimised with line
# tables only (CMakeLists.txt, Dev), and precompiles the standard headers
# unless ccache is the compiler launcher (cmake/KelpPch.cmake): a fresh
# `make run` answers within about a minute on two cores. BUILD_TYPE=Debug
# for full debug information; make bench and make package build optimised.
BUILD_TYPE ?= Dev
# Options for the agent that make run starts, e.g. ARGS='--listen udp:127.0.0.1:1162'.
ARGS       ?=
# make install: the prefix (fixed when configuring: changing it reconfigures
# $(BUILD)) and a staging root.
PREFIX     ?= /usr/local
DESTDIR    ?=
BUILD_PACKAGE ?= $(BUILD)-package
# What the agent needs, and what is installed.
RUN_TARGETS     = kelpagent kelpimp64 kelpruntime kelpctl
INSTALL_TARGETS = $(RUN_TARGETS) kelpgen

.PHONY: all deps configure build run install package test asan tsan bench format format-check clean \
        fuzz fuzz-smoke stress

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j$(JOBS)

# The SNMP agent on the sample model, in the foreground until Ctrl-C, with
# its defaults: udp:127.0.0.1:1161, community public, state (control socket,
# ini, debug log) in $$XDG_STATE_HOME/kelp or ~/.local/state/kelp. Builds only
# what the agent needs; make test builds the rest.
run: configure
	cmake --build $(BUILD) -j$(JOBS) --target $(RUN_TARGETS)
	@echo "kelpagent: serving the sample model (data/models/sample.xml) on udp:127.0.0.1:1161"
	@echo "unless ARGS says otherwise (Ctrl-C stops it). In another terminal, try:"
	@echo "  snmpwalk -v2c -c public 127.0.0.1:1161 1.3.6.1.4.1.61234.20571.1.20"
	@echo "  snmpget -v2c -c public 127.0.0.1:1161 1.3.6.1.4.1.61234.20571.1.20.130.1.1.2.1"
	@echo "  $(BUILD)/bin/kelpctl set 1 Name 'Vorn RX-240 (renamed)'"
	@echo "  $(BUILD)/bin/kelpctl mib      (the -M/-m options for names instead of numbers)"
	$(BUILD)/bin/kelpagent $$([ "$$(id -u)" = 0 ] && echo --allow-root) $(ARGS)

# Installs the programs, libraries, sample model, catalogue, MIB, manual
# pages, configuration and systemd unit under $(PREFIX) (staged in $(DESTDIR)
# when given).
install: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS) --target $(INSTALL_TARGETS)
	DESTDIR=$(DESTDIR) cmake --install $(BUILD)

# A Debian package for /usr (CPack's DEB generator), from an optimised build
# of its own: $(BUILD_PACKAGE)/package/kelp_VERSION_ARCH.deb.
package: deps
	cmake -S . -B $(BUILD_PACKAGE) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_ARGS)
	cmake --build $(BUILD_PACKAGE) -j$(JOBS) --target $(INSTALL_TARGETS)
	cd $(BUILD_PACKAGE) && cpack -G DEB
	@ls $(BUILD_PACKAGE)/package/*.deb

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# The whole test suite again, built with AddressSanitizer (leak checking on)
# and UndefinedBehaviorSanitizer; the packaging test (a .deb of this build)
# checks nothing a sanitizer sees, so it is left out.
ASAN_CTEST_ARGS ?= -LE packaging
asan: deps
	cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=ON $(CMAKE_ARGS)
	cmake --build $(BUILD_ASAN) -j$(JOBS)
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(JOBS) $(ASAN_CTEST_ARGS)

# The tests labelled `concurrency` (threads beside each other: request,
# refresh, monitor and aggregation threads, the control socket, rescans
# during walks), built with ThreadSanitizer. Only their executables and what
# they start are built. tsan.supp names the races the plug-in's design
# requires (docs/THREADS.md); any other report fails the test. The model
# change test runs for TSAN_CHANGE_SECONDS instead of its minute.
TSAN_TARGETS = agent_integration_test agent_test module_event_threads_test module_store_test \
               module_frame_test support_test control_test eventif_test queue_test datastore_test \
               agent_flood_test agent_faults_test kelp_stress model_swap_test agent_swap_test
TSAN_CHANGE_SECONDS ?= 20
tsan: deps
	cmake -S . -B $(BUILD_TSAN) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DKELP_SANITIZE_THREAD=ON $(CMAKE_ARGS)
	cmake --build $(BUILD_TSAN) -j$(JOBS) --target $(TSAN_TARGETS)
	cd $(BUILD_TSAN) && \
	  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tsan.supp" \
	  KELP_CHANGE_TEST_SECONDS=$(TSAN_CHANGE_SECONDS) \
	  ctest --output-on-failure -j$(JOBS) -L concurrency

# The libFuzzer targets (docs/FUZZING.md), built with clang, ASan and UBSan
# in a build directory of their own; fuzz-smoke runs each for FUZZ_RUNS
# inputs from its seed corpus.
BUILD_FUZZ ?= build-fuzz
FUZZ_RUNS  ?= 2000
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_FUZZ) -DCMAKE_BUILD_TYPE=Dev -DKELP_FUZZ=ON $(CMAKE_ARGS)
	cmake --build $(BUILD_FUZZ) -j$(JOBS) --target fuzz_all

fuzz-smoke: fuzz
	scripts/fuzz-smoke.sh $(BUILD_FUZZ) $(FUZZ_RUNS)

# Release build of the benchmarks (bench/), run once.
bench: deps
	cmake -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)
	cmake --build $(BUILD)-bench -j$(JOBS) --target kelp_bench kelpagent kelpimp64 kelpgen agentx_table \
	  walker minagent
	$(BUILD)-bench/bin/kelp_bench

# Formats every tracked C++ source in place (.clang-format); format-check only
# names the files that are not formatted and fails, as CI does first.
format: deps
	git ls-files -z '*.cc' '*.h' | xargs -0 clang-format -i

format-check: deps
	@scripts/check-format.sh

# The stress run at its large size (docs/STRESS.md): 8 walkers and 2
# getters against kelpagent over 1,000 model loads, a few minutes; fails on
# a wrong answer or when the agent's resident memory after the last load is
# more than 10% above that after the 10th. It uses the development build
# ($(BUILD)) and builds only the driver and what it starts: what it checks
# does not depend on optimisation, and the build is usually there already.
STRESS_ARGS ?= --walkers 8 --getters 2 --loads 1000 --seconds 900 --round-ms 150
stress: configure
	cmake --build $(BUILD) -j$(JOBS) --target kelp_stress
	$(BUILD)/tests/kelp_stress $(STRESS_ARGS)

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_TSAN) $(BUILD)-bench $(BUILD_PACKAGE) $(BUILD_FUZZ)
