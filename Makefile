# Everything a fresh Debian machine needs: `make test` installs what is missing, builds, tests;
# `make run` installs, builds the simulator and runs it.
JOBS ?= $(shell nproc)
CTEST_ARGS ?=

.PHONY: all deps build test run report-docs asan tsan bench fuzz soak mutate clean sweep-parallel-check sweep-slurm-check

all: build

deps:
	@scripts/deps.sh

build/%/build.ninja: | deps
	cmake --preset $*

build: deps build/release/build.ninja
	cmake --build --preset release -j $(JOBS)

test: build
	ctest --preset release -j $(JOBS) $(CTEST_ARGS)

# pelyx-sim on its built-in scenario (about 10 s); SIM_ARGS adds options, e.g. SIM_ARGS=--compare.
# Its summary, frames and report go to build/run/.
SIM_ARGS ?=
run: deps build/release/build.ninja
	cmake --build --preset release -j $(JOBS) --target pelyx-sim
	@rm -rf build/run && mkdir -p build/run
	build/release/tools/sim/pelyx-sim --summary build/run/summary.json --frames build/run/frames.csv $(SIM_ARGS)
	@tools/report/pelyx-report --out build/run/report build/run/summary.json build/run/*.csv | tail -n 1

# The pictures of the built-in scenario's --compare and of its sweep that the README shows.
report-docs: deps build/release/build.ninja
	cmake --build --preset release -j $(JOBS) --target pelyx-sim
	@rm -rf build/docs-run && mkdir -p build/docs-run
	build/release/tools/sim/pelyx-sim --compare --summary build/docs-run/compare.json --frames build/docs-run/frames.csv
	build/release/tools/sim/pelyx-sim --sweep tools/sim/sweeps/default.json --summary build/docs-run/sweep.json
	tools/report/pelyx-report --out docs build/docs-run/compare.json build/docs-run/frames.enabled.csv \
	  build/docs-run/frames.disabled.csv build/docs-run/sweep.json
	rm -f docs/index.html

# A small sweep cut into shards, played by GNU parallel (two local slots) or as a Slurm job
# array on a one-node cluster brought up on this machine, merged and compared with the
# one-machine run. The Slurm check installs slurm-wlm and munge if they are missing (root).
sweep-parallel-check: build
	scripts/sweep-parallel-check.sh

sweep-slurm-check: build
	scripts/sweep-slurm-check.sh

asan: deps build/asan/build.ninja
	cmake --build --preset asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --preset asan -j $(JOBS) $(CTEST_ARGS)

tsan: deps build/tsan/build.ninja
	cmake --build --preset tsan -j $(JOBS)
	PELYX_STRESS_SECONDS=20 TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  ctest --preset tsan -j $(JOBS) $(CTEST_ARGS)

# The suite built with GCC (Debian's default compiler), warnings as errors.
gcc: deps build/gcc/build.ninja
	cmake --build --preset gcc -j $(JOBS)
	ctest --preset gcc -j $(JOBS) $(CTEST_ARGS)

bench: build
	build/release/bench/pelyx-bench $(BENCH_ARGS)

# The soak test alone for SOAK_SECONDS: memory flat, no error line, no blocked thread.
SOAK_SECONDS ?= 180
soak: build
	PELYX_SOAK_SECONDS=$(SOAK_SECONDS) build/release/tests/soak_test

# Runs every fuzzer for FUZZ_SECONDS on a scratch copy of its committed seed corpus.
FUZZ_SECONDS ?= 60
FUZZERS := fuzz_gfr_tunables fuzz_hint_callback fuzz_layer_names fuzz_api_sequence
fuzz: deps build/fuzz/build.ninja
	cmake --build --preset fuzz -j $(JOBS) --target $(FUZZERS)
	@for f in $(FUZZERS); do \
	  mkdir -p build/fuzz/corpus/$$f; cp -n fuzz/corpus/$$f/* build/fuzz/corpus/$$f/ 2>/dev/null || true; \
	  echo "== $$f for $(FUZZ_SECONDS) s"; \
	  if build/fuzz/fuzz/$$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	       -artifact_prefix=build/fuzz/ build/fuzz/corpus/$$f > build/fuzz/$$f.log 2>&1; then \
	    grep -E '^(Done|stat::number_of_executed_units|stat::new_units_added|stat::peak_rss_mb)' build/fuzz/$$f.log; \
	  else \
	    tail -n 60 build/fuzz/$$f.log; echo "== $$f FAILED (log: build/fuzz/$$f.log)"; exit 1; \
	  fi; \
	done

# Plants each fault of tests/mutations.txt in a scratch copy and runs the tests against it;
# MUTATE_FILTER=text picks faults; MUTATE_WHICH=1 lists every test that kills each one,
# MUTATE_WHICH=named the same over the executables each fault names.
MUTATE_FILTER ?=
MUTATE_WHICH ?=
mutate: deps
	MUTATE_FILTER="$(MUTATE_FILTER)" MUTATE_WHICH="$(MUTATE_WHICH)" python3 scripts/mutate.py --jobs $(JOBS)

clean:
	rm -rf build
