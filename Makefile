# Thin wrapper around CMake/Ninja/CTest. `make test` is what CI runs.
BUILD      ?= build
JOBS       ?= 2
CMAKE_GEN   = -G Ninja
CTEST_ARGS ?= --output-on-failure -j $(JOBS)

.PHONY: all deps build test run install package sanitize tsan soak docs bench fuzz clean

all: build

deps:
	@scripts/setup-deps.sh

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

# Installs what is missing, builds everything and runs every test.
test: build
	ctest --test-dir $(BUILD) $(CTEST_ARGS)
	@[ -d ../shared/testdata/genicam ] || echo "make test: the tests on real camera descriptions were skipped:" \
	  "there is no ../shared/testdata/genicam beside this checkout"
	@if [ -x scripts/fuzz-smoke.sh ]; then scripts/fuzz-smoke.sh; fi

# The main job: the command-line tool against the virtual cameras.
run: build
	@scripts/run-demo.sh $(BUILD)

# The libraries, headers, tools, CMake and pkg-config files, the Python
# package and the network GigE producer under PREFIX (virtual cameras in
# PREFIX/lib/kivcam/virtual, see docs/getting-started.md).
PREFIX ?= /usr/local
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# The same layout as a Debian package under /usr, in the build folder.
package: build
	cd $(BUILD) && cpack

# AddressSanitizer + UndefinedBehaviorSanitizer build and test run.
sanitize: deps
	cmake -S . -B build-asan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKIVCAM_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-asan $(CTEST_ARGS)

# ThreadSanitizer build; runs the threading and multi-process tests.
tsan: deps
	cmake -S . -B build-tsan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKIVCAM_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan $(CTEST_ARGS) -L threads

# The guide (docs/) and the reference from the headers' comments, with
# Doxygen (installed here, not by `make test`): $(BUILD)/docs/html/index.html.
docs: deps
	@scripts/setup-deps.sh --docs
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) --target docs
	@echo "the guide and the reference: $(BUILD)/docs/html/index.html"

# Soak and fault runs, long, from an AddressSanitizer build (short versions
# of both are part of `make test`); the result goes to build-soak/soak-report.txt.
SOAK_SECONDS ?= 600
soak: deps
	@scripts/setup-deps.sh --soak
	cmake -S . -B build-soak $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIVCAM_SANITIZE=address,undefined
	cmake --build build-soak -j $(JOBS) --target test_soak test_faults
	scripts/soak.sh build-soak $(SOAK_SECONDS)

bench:
	@scripts/setup-deps.sh --bench
	cmake -S . -B build-bench $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DKIVCAM_BUILD_BENCH=ON -DKIVCAM_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	@echo "benchmarks are in build-bench/bin (bench_*)"

clean:
	rm -rf $(BUILD) build-asan build-tsan build-bench build-fuzz build-soak
