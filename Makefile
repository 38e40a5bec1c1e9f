# The two commands of this project are `make demo` and `make test`; both install
# what they need, build, and run. See README.md.

PRESETS := release asan tsan
JOBS ?= $(shell nproc)

# The sanitizers' shadow memory does not fit every randomised address layout.
FIXED_LAYOUT := $(shell setarch $$(uname -m) -R true 2>/dev/null && echo setarch $$(uname -m) -R)

.PHONY: demo test $(PRESETS:%=test-%) coverage fuzz mutants faults overload soak bench-peers bench-drives setup format tidy clean

demo: build-release
	scripts/demo.sh build/release/bin

test: $(PRESETS:%=test-%)

$(PRESETS:%=test-%): test-%: build-%
	$(FIXED_LAYOUT) ctest --preset $* -j $(JOBS)

.PHONY: $(PRESETS:%=build-%) build-coverage build-fuzz
$(PRESETS:%=build-%) build-coverage build-fuzz: build-%: setup
	cmake --preset $* $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
	$(FIXED_LAYOUT) cmake --build --preset $* -j $(JOBS)

# What the tests run of the code: lines and branches per folder.
coverage:
	@scripts/setup.sh coverage
	$(MAKE) build-coverage
	rm -rf build/coverage/profiles
	ctest --preset coverage -j $(JOBS)
	scripts/coverage build/coverage

# Each fuzz target for SECONDS; what it finds lies in build/fuzz/found. Names of
# functions are not printed: the program that finds them leaves descriptors open.
SECONDS := 60
FUZZ := requests stream replies parameters probing
.PHONY: $(FUZZ:%=fuzz-%)
fuzz: $(FUZZ:%=fuzz-%)
$(FUZZ:%=fuzz-%): fuzz-%: build-fuzz
	@mkdir -p build/fuzz/found/$*
	$(FIXED_LAYOUT) build/fuzz/bin/udisk_fuzz_$* build/fuzz/found/$* fuzz/corpus/$* \
	  -max_total_time=$(SECONDS) -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 -print_funcs=0 \
	  -artifact_prefix=build/fuzz/found/$*-

# Puts one fault at a time into a copy of the code; the tests of its layer have to notice.
# `make mutants MUTANTS='drive --name fsync'` for some.
mutants:
	@scripts/setup.sh mutants
	mutants/mutants $(MUTANTS)

# The host beside OpenSSH's sftp-server and the bare system calls. Options for the
# script as in `make bench-peers PEERS='--rounds 3 --works listing'`.
bench-peers:
	@scripts/setup.sh drives
	cmake --preset release -DUDISK_BUILD_BENCH=ON
	cmake --build --preset release -j $(JOBS) \
	  --target udisk-host udisk-redir udisk_bench_peers
	bench/compare-peers --bin build/release/bin $(PEERS)

# Side by side with sshfs, over a slow link; takes a while. Options for the script
# as in `make bench-drives DRIVES='--runs 1 --files 200 --mib 16'`.
bench-drives:
	@scripts/setup.sh drives
	cmake --preset release -DUDISK_BUILD_BENCH=ON
	cmake --build --preset release -j $(JOBS) \
	  --target udisk-host udisk-redir udisk-mount slow-link
	bench/compare-drives --bin build/release/bin $(DRIVES)

# Lets everything fail that the host relies on, and checks its
# requests; takes some minutes, and root. `make faults FAULTS='full hanging'` for some.
faults:
	@scripts/setup.sh faults
	cmake --preset release -DUDISK_BUILD_FAULTS=ON
	cmake --build --preset release -j $(JOBS) \
	  --target udisk-host udisk-redir udisk-mount driver_tests failing_allocator
	faults/faults $(FAULTS)

# Floods, stalled clients, killed and stopped ends; with a table of what it cost.
overload:
	@scripts/setup.sh faults
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target udisk-host udisk-redir udisk-mount
	faults/overload --bin build/release/bin

# All commands and the drive under random faults. As root the disk fails, too.
MINUTES ?= 20
soak:
	@scripts/setup.sh faults
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target udisk-soak
	build/release/bin/udisk-soak --minutes $(MINUTES) $(SOAK)

setup:
	@scripts/setup.sh

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

tidy: build-release
	git ls-files 'framework/*.cpp' 'driver/*.cpp' 'host/*.cpp' \
	  'client/*.cpp' 'drive/*.cpp' 'mount/*.cpp' 'cli/*.cpp' | \
	  xargs -P $(JOBS) -n 4 clang-tidy -p build/release --quiet

clean:
	rm -rf build
