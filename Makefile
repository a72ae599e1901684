# Short commands for the usual tasks. CMake does the builds, with the presets in CMakePresets.json.
PRESET ?= release
BUILD = $(if $(filter release,$(PRESET)),build,build-$(PRESET))

.PHONY: all configure test soak demo bench bench-net fuzz deb clean
all: configure
	cmake --build $(BUILD)

configure:
	tools/install-packages
	cmake --preset $(PRESET)

test: all
	ctest --test-dir $(BUILD) --output-on-failure --timeout 300

soak: all
	tests/adversary/run $(BUILD) --seconds 1800

demo: all
	demo/run $(BUILD)

bench: all
	cmake --build $(BUILD) --target run-benchmarks

bench-net: all
	cmake --build $(BUILD) --target run-net-benchmarks

fuzz:
	$(MAKE) PRESET=fuzz all

deb: configure
	cmake --build $(BUILD) --target OrvaneSE orvanectl
	packaging/make-deb $(BUILD)

clean:
	rm -rf build build-*
