# Two commands do everything on a fresh Debian machine: `make demo` and `make test`.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)

.PHONY: deps configure build test check demo bench clean

deps:
	bash scripts/install-deps.sh

configure: deps
	@if [ ! -f $(BUILD_DIR)/CMakeCache.txt ]; then \
	  GEN="$$(command -v ninja >/dev/null 2>&1 && echo '-G Ninja')"; \
	  cmake -S . -B $(BUILD_DIR) $$GEN -DCMAKE_BUILD_TYPE=Release; \
	fi

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# What CI adds after `make test`: sanitizer builds of the suites and the fuzz targets (in
# folders of their own), and the kill and fault runs over this build's tool.
check: build
	bash scripts/install-deps.sh --check
	bash scripts/check.sh

demo: build
	$(BUILD_DIR)/Tools/ktanalytics/ktanalytics demo

bench: build
	bash scripts/run-benchmarks.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
