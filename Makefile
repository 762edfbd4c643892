# nikerkiog: the two commands of the README.
#   make run    build the tool and run it on the bundled examples
#   make test   every test, in four configurations (native, sanitizers, armel, s390x)
# Both install missing Debian packages first.

JOBS      ?= $(shell nproc)
BUILD     ?= build
GEN       := -G Ninja
SANITIZER_ENV := ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=1 \
                 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
CTEST     := ctest --output-on-failure -j$(JOBS)
# Compiler caches are shared between checkouts of the tree.
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := true

.PHONY: run test deps deps-cross native asan armel s390x \
        test-native test-asan test-armel test-s390x bench bench-armel bench-instructions install clean

run: deps native
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

# --- configurations ----------------------------------------------------------

$(BUILD)/native/build.ninja:
	cmake -S . -B $(BUILD)/native $(GEN) -DCMAKE_BUILD_TYPE=Release

$(BUILD)/asan/build.ninja:
	CC=clang CXX=clang++ cmake -S . -B $(BUILD)/asan $(GEN) -DCMAKE_BUILD_TYPE=Debug \
	  -DNIKERKIOG_SANITIZE=ON -DNIKERKIOG_BENCH=OFF

$(BUILD)/armel/build.ninja:
	cmake -S . -B $(BUILD)/armel $(GEN) -DCMAKE_BUILD_TYPE=Release \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabi.cmake -DNIKERKIOG_TOOLS=OFF -DNIKERKIOG_BENCH=OFF

$(BUILD)/s390x/build.ninja:
	cmake -S . -B $(BUILD)/s390x $(GEN) -DCMAKE_BUILD_TYPE=Release \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/s390x-linux-gnu.cmake -DNIKERKIOG_TOOLS=OFF -DNIKERKIOG_BENCH=OFF

native asan armel s390x: %: $(BUILD)/%/build.ninja
	cmake --build $(BUILD)/$* -j$(JOBS)

test-native: native
	cd $(BUILD)/native && $(CTEST) --output-junit junit.xml

test-asan: asan
	cd $(BUILD)/asan && $(SANITIZER_ENV) $(CTEST) --output-junit junit.xml

test-armel: armel
	cd $(BUILD)/armel && $(CTEST) --output-junit junit.xml

test-s390x: s390x
	cd $(BUILD)/s390x && $(CTEST) --output-junit junit.xml

# --- extras -------------------------------------------------------------------

bench: deps native
	@for b in $(BUILD)/native/bench/bench_*; do echo "=== $$b"; $$b; done

# The checksum benchmark on the 32-bit target under qemu: only its ratios
# against the reference loops mean anything there.
$(BUILD)/armel-bench/build.ninja:
	cmake -S . -B $(BUILD)/armel-bench $(GEN) -DCMAKE_BUILD_TYPE=Release \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabi.cmake -DNIKERKIOG_TOOLS=OFF -DNIKERKIOG_TESTS=OFF

bench-armel:
	@scripts/deps.sh bench-armel
	@$(MAKE) --no-print-directory $(BUILD)/armel-bench/build.ninja
	cmake --build $(BUILD)/armel-bench -j$(JOBS) --target bench_checksum
	qemu-arm -L / $(BUILD)/armel-bench/bench/bench_checksum

# Instructions per packet of the classifier, counted by callgrind.
bench-instructions: deps native
	bench/instructions.sh $(BUILD)/native/bench/bench_classifier

install: native
	cmake --install $(BUILD)/native $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD)
