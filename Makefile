# Everything a fresh Debian machine needs: `make test` installs what is missing, builds, tests;
# `make run` installs, builds the simulator and runs it.
JOBS ?= $(shell nproc)
CTEST_ARGS ?=

.PHONY: all deps build test run report-docs browser-check goldens asan tsan bench fuzz soak mutate clean \
  sweep-parallel-check sweep-slurm-check

all: build

deps:
	@scripts/deps.sh

build/%/build.ninja: | deps
	cmake --preset $*

build: deps build/release/build.ninja
	cmake --build --preset release -j $(JOBS)

test: build
	ctest --preset release -j $(JOBS) $(CTEST_ARGS)

# pelyx-sim on its built-in scenario (about 10 s); SIM_ARGS adds options, e.g. SIM_ARGS=--compare or
# SIM_ARGS="--sweep tools/sim/sweeps/default.json". Its summary, frames and report page go to
# build/run/; the last line names the page. A sweep writes no frames.
SIM_ARGS ?=
RUN_FRAMES = $(if $(findstring --sweep,$(SIM_ARGS)),,--frames build/run/frames.csv)
run: deps build/release/build.ninja
	cmake --build --preset release -j $(JOBS) --target pelyx-sim
	@rm -rf build/run && mkdir -p build/run
	build/release/tools/sim/pelyx-sim --summary build/run/summary.json $(RUN_FRAMES) $(SIM_ARGS)
	@tools/report/pelyx-report --out build/run/report build/run/summary.json $$(ls build/run/*.csv 2>/dev/null) | tail -n 1

# The report pages of a short run, a --compare and a small sweep, checked in headless Chromium
# (Debian's, installed when missing); their screenshots stay in build/browser-check/.
browser-check: deps build/release/build.ninja
	@scripts/deps.sh browser
	cmake --build --preset release -j $(JOBS) --target pelyx-sim
	scripts/browser-check.sh

# The README's pictures: the built-in scenario's --compare and sweep, and the top of its run page.
report-docs: deps build/release/build.ninja
	@scripts/deps.sh browser
	cmake --build --preset release -j $(JOBS) --target pelyx-sim
	@rm -rf build/docs-run && mkdir -p build/docs-run
	build/release/tools/sim/pelyx-sim --quiet --summary build/docs-run/run.json --frames build/docs-run/run.csv
	tools/report/pelyx-report --out build/docs-run/run build/docs-run/run.json build/docs-run/run.csv
	build/release/tools/sim/pelyx-sim --compare --summary build/docs-run/compare.json --frames build/docs-run/frames.csv
	build/release/tools/sim/pelyx-sim --sweep tools/sim/sweeps/default.json --summary build/docs-run/sweep.json
	tools/report/pelyx-report --out build/docs-run/report build/docs-run/compare.json build/docs-run/frames.enabled.csv \
	  build/docs-run/frames.disabled.csv build/docs-run/sweep.json
	cp build/docs-run/report/timeline-enabled-game.png build/docs-run/report/latency.png build/docs-run/report/sweep.png docs/
	scripts/browser-check.py --height 1250 --screenshots docs report=build/docs-run/run/index.html

# Rewrites the scenario goldens (tests/goldens/*.records) from fresh runs: review with git diff.
goldens: build
	$(PYTHON) scripts/goldens.py --sim build/release/tools/sim/pelyx-sim --update

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
# SAMPLE=N [SEED=S] instead draws N mutants at random from the library's syntax tree;
# SAMPLE=1 MUTANTS="id ..." (or MUTANTS=@file) re-runs chosen drawn mutants.
MUTATE_FILTER ?=
MUTATE_WHICH ?=
SAMPLE ?=
SEED ?= 1
MUTANTS ?=
# Debian's interpreter: python3-clang installs its bindings there.
PYTHON ?= $(firstword $(wildcard /usr/bin/python3) python3)
mutate: deps
	@scripts/deps.sh ccache lld
	MUTATE_FILTER="$(MUTATE_FILTER)" MUTATE_WHICH="$(MUTATE_WHICH)" SAMPLE="$(SAMPLE)" SEED="$(SEED)" MUTANTS="$(MUTANTS)" \
	  $(PYTHON) scripts/mutate.py --jobs $(JOBS)

clean:
	rm -rf build
