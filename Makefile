# The two commands: `make check` (install what is missing, build, run every
# test and check) and `make demo` (the main job). The rest are conveniences.
BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: check check-vm demo build test fuzz bench format clean

check:
	tools/check.sh

# The SCSI layer on real kernel drivers in a throw-away VM (qemu; the
# harness installs it and its kernel cache on first use). `make check` runs
# the same when both are present and prints a skip line otherwise.
check-vm:
	tools/check-vm.sh

demo: build
	$(BUILD)/native/examples/envelope_demo

build:
	tools/setup.sh
	cmake -S . -B $(BUILD)/native -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD)/native -j $(JOBS)

test: build
	ctest --test-dir $(BUILD)/native -j $(JOBS) --output-on-failure

fuzz:
	FUZZ_SECONDS=$${FUZZ_SECONDS:-60} tools/fuzz.sh

bench: build
	@for b in $(BUILD)/native/bench/*_bench; do echo "== $$b"; $$b; done

format:
	tools/format.sh

clean:
	rm -rf $(BUILD)
