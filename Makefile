# nikerkiog: the two commands of the README.
#   make run    build the libraries and the tool, run it on the bundled examples
#   make test   every test, in four configurations (native, sanitizers, armel, s390x)
# Both install missing Debian packages first.  The configurations are the
# presets of CMakePresets.json; the build trees live in build/<preset>.

JOBS      ?= $(shell nproc)
BUILD     := build
CTEST_ARGS := -j$(JOBS) --output-junit junit.xml
# Compiler caches are shared between checkouts of the tree.
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := true

.PHONY: run test deps deps-cross deps-bench native asan armel s390x \
        test-native test-asan test-armel test-s390x bench bench-armel bench-instructions bench-classd soak-classd install clean

run: deps $(BUILD)/native/build.ninja
	cmake --build --preset native -j$(JOBS) --target nikerkiog_tool
	./examples/run.sh $(BUILD)/native/tools/nikerkiog

test: deps-cross
	@status=0; \
	for cfg in native asan armel s390x; do \
	  echo "=== $$cfg ==="; \
	  rm -f $(BUILD)/$$cfg/junit.xml; \
	  if $(MAKE) --no-print-directory test-$$cfg; then echo "=== $$cfg: passed ==="; \
	  else echo "=== $$cfg: FAILED ==="; status=1; fi; \
	done; \
	scripts/test-summary.sh $(BUILD) native asan armel s390x || status=1; \
	exit $$status

deps:
	@scripts/deps.sh native

deps-cross:
	@scripts/deps.sh cross

deps-bench:
	@scripts/deps.sh bench

# --- configurations ----------------------------------------------------------

$(BUILD)/%/build.ninja:
	cmake --preset $*

native asan armel s390x: %: $(BUILD)/%/build.ninja
	cmake --build --preset $* -j$(JOBS)

test-native test-asan test-armel test-s390x: test-%: %
	ctest --preset $* $(CTEST_ARGS)

# --- extras -------------------------------------------------------------------

bench: deps-bench $(BUILD)/bench/build.ninja
	cmake --build --preset bench -j$(JOBS)
	@for b in $(BUILD)/bench/bench/bench_*; do echo "=== $$b"; $$b; done

# The checksum and classifier benchmarks on the 32-bit target under qemu:
# only their ratios against the reference loops and the classifier's own
# linear search mean anything there.
bench-armel:
	@scripts/deps.sh bench-armel
	@$(MAKE) --no-print-directory $(BUILD)/armel-bench/build.ninja
	cmake --build --preset armel-bench -j$(JOBS) --target bench_checksum bench_vs_bpf
	qemu-arm -L / $(BUILD)/armel-bench/bench/bench_checksum
	qemu-arm -L / $(BUILD)/armel-bench/bench/bench_vs_bpf

# Instructions per packet of the classifier, counted by callgrind.
bench-instructions: deps $(BUILD)/bench/build.ninja
	cmake --build --preset bench -j$(JOBS) --target bench_classifier
	bench/instructions.sh $(BUILD)/bench/bench/bench_classifier

# Packets per second through the kernel queue: the classifier daemon with
# 100 rules, with a set that always misses, and its null mode (no classifier).
bench-classd: deps $(BUILD)/bench/build.ninja
	cmake --build --preset bench -j$(JOBS) --target nikerkiog_classd classd_load
	/usr/bin/python3 bench/classd/run.py --daemon $(BUILD)/bench/daemon/nikerkiog-classd --load $(BUILD)/bench/bench/classd_load

# Ten minutes of traffic through the classifier daemon with a reload every
# second, valid and invalid files in turn; live allocations and resident
# size sampled every 10 seconds must stay flat (not part of CTest).
SOAK_SECONDS ?= 600
soak-classd: deps $(BUILD)/native/build.ninja
	cmake --build --preset native -j$(JOBS) --target nikerkiog_classd_test
	/usr/bin/python3 tests/daemon/classd_soak.py --daemon $(BUILD)/native/tests/nikerkiog_classd_test --seconds $(SOAK_SECONDS)

# Coverage-guided fuzzing: every target of fuzz/ built with clang's libFuzzer,
# ASan and UBSan, run one after the other for FUZZ_SECONDS each.  Each run
# starts from the committed corpus fuzz/corpus/<target> and writes what it
# finds to the scratch corpus $(BUILD)/fuzz/corpus/<target>; crashing inputs
# land in $(BUILD)/fuzz/artifacts/.  The README says how to merge new inputs
# into the committed corpus.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= clfy_rule clfy_match dhcp dhcp_alloc rules pkt platform
fuzz: deps $(BUILD)/fuzz/build.ninja
	cmake --build --preset fuzz -j$(JOBS) $(foreach t,$(FUZZ_TARGETS),--target fuzz_$(t))
	@mkdir -p $(BUILD)/fuzz/artifacts
	@for t in $(FUZZ_TARGETS); do \
	  echo "=== fuzz_$$t: $(FUZZ_SECONDS) s"; \
	  mkdir -p $(BUILD)/fuzz/corpus/$$t; \
	  if $(BUILD)/fuzz/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	       -artifact_prefix=$(BUILD)/fuzz/artifacts/$$t- \
	       $(BUILD)/fuzz/corpus/$$t fuzz/corpus/$$t > $(BUILD)/fuzz/$$t.log 2>&1; then \
	    grep -E '^#[0-9]+ +DONE|^stat::(number_of_executed_units|average_exec_per_sec)' $(BUILD)/fuzz/$$t.log; \
	  else \
	    tail -40 $(BUILD)/fuzz/$$t.log; echo "=== fuzz_$$t FAILED: input in $(BUILD)/fuzz/artifacts/"; exit 1; \
	  fi; \
	done

install: native
	cmake --install $(BUILD)/native $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD)
