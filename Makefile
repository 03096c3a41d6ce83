# The README's commands. Each installs what is missing, configures, builds and runs.
JOBS ?= $(shell nproc)
BUILD ?= build
BUILD_ASAN ?= build-asan
BUILD_TSAN ?= build-tsan
BUILD_FUZZ ?= build-fuzz
CMAKE_FLAGS ?=

.PHONY: all deps configure build test test-plain test-asan demo bench tsan fuzz format clean

all: build

deps:
	./scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: test-plain test-asan

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DKRO_SANITIZE=address $(CMAKE_FLAGS)
	cmake --build $(BUILD_ASAN) -j $(JOBS)
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest --output-on-failure -j $(JOBS) -LE nosanitize

tsan: deps
	cmake -S . -B $(BUILD_TSAN) -DCMAKE_BUILD_TYPE=Debug -DKRO_SANITIZE=thread $(CMAKE_FLAGS)
	cmake --build $(BUILD_TSAN) -j $(JOBS)
	cd $(BUILD_TSAN) && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L tsan

# Builds every libFuzzer target with clang and runs each for FUZZ_SECONDS,
# seeded with the stream descriptions of examples/.
FUZZ_SECONDS ?= 60
fuzz: deps
	cmake -S . -B $(BUILD_FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
		-DCMAKE_CXX_COMPILER=clang++ -DKRO_FUZZ=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD_FUZZ) -j $(JOBS) --target kro_fuzz_targets
	mkdir -p $(BUILD_FUZZ)/seeds && cp examples/*.plist $(BUILD_FUZZ)/seeds/
	@for f in $(BUILD_FUZZ)/core/tests/*_fuzz; do \
		corpus=$(BUILD_FUZZ)/corpus/$$(basename $$f); mkdir -p $$corpus; \
		echo "== $$f for $(FUZZ_SECONDS) s"; \
		dict=core/tests/fuzz/$$(basename $$f).dict; \
		KROCORE_RESOURCES=$(CURDIR)/core/resources $$f -max_total_time=$(FUZZ_SECONDS) \
			$$([ -f $$dict ] && echo -dict=$$dict) -artifact_prefix=$(BUILD_FUZZ)/ \
			$$corpus $(BUILD_FUZZ)/seeds || exit 1; \
	done

demo: build
	$(BUILD)/tools/kro/kro --version
	$(BUILD)/tools/kro/kro classes
	BUILD=$(BUILD) scripts/demo

bench: build
	@for b in $(BUILD)/core/bench/*_bench; do echo "== $$b"; $$b; done

format:
	find core tools -name '*.h' -o -name '*.cpp' -o -name '*.c' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_TSAN) $(BUILD_FUZZ)
