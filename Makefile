# The README's commands. Each installs what is missing, configures, builds and runs.
JOBS ?= $(shell nproc)
BUILD ?= build
BUILD_ASAN ?= build-asan
BUILD_TSAN ?= build-tsan
CMAKE_FLAGS ?=
PREFIX ?= /usr/local

.PHONY: all deps configure build install asan test test-plain test-asan demo bench tsan fuzz format clean

all: build

deps:
	./scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Installs the library, its headers, resources, CMake package, pkg-config file,
# kro and its manual page under PREFIX.
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

test: test-plain test-asan

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The sanitizer half is built by clang, so both compilers build every commit;
# the same build holds the libFuzzer targets, each run FUZZ_SECONDS over its
# seed corpus after the tests.
FUZZ_SECONDS ?= 30
ASAN_CONFIGURE = cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug \
	-DCMAKE_C_FLAGS_DEBUG="-g -O1" -DCMAKE_CXX_FLAGS_DEBUG="-g -O1" \
	-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	-DKRO_SANITIZE=address -DKRO_FUZZ=ON $(CMAKE_FLAGS)

asan: deps
	$(ASAN_CONFIGURE)
	cmake --build $(BUILD_ASAN) -j $(JOBS)

test-asan: asan
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest --output-on-failure -j $(JOBS) -LE nosanitize
	scripts/run-fuzzers $(BUILD_ASAN) $(FUZZ_SECONDS)

tsan: deps
	cmake -S . -B $(BUILD_TSAN) -DCMAKE_BUILD_TYPE=Debug -DKRO_SANITIZE=thread $(CMAKE_FLAGS)
	cmake --build $(BUILD_TSAN) -j $(JOBS)
	cd $(BUILD_TSAN) && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L tsan

# Runs the fuzzers alone, longer: make fuzz FUZZ_SECONDS=600 [FUZZ_TARGETS="WAVE_fuzz ..."].
# Findings go to $(BUILD_ASAN)/fuzz/findings/<target>/.
FUZZ_TARGETS ?=
fuzz: asan
	scripts/run-fuzzers $(BUILD_ASAN) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

demo: build
	$(BUILD)/tools/kro/kro --version
	$(BUILD)/tools/kro/kro classes
	BUILD=$(BUILD) scripts/demo

bench: build
	@for b in $(BUILD)/core/bench/*_bench; do echo "== $$b"; $$b; done

format:
	find core tools -name '*.h' -o -name '*.cpp' -o -name '*.c' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_TSAN)
