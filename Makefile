# Short commands for the usual tasks. Each first installs the missing packages that it needs, with
# tools/install-packages. CMake does the builds, with the presets in CMakePresets.json.
PRESET ?= release
BUILD = $(if $(filter release,$(PRESET)),build,build-$(PRESET))
INSTALL = tools/install-packages build $(if $(filter asan tsan fuzz,$(PRESET)),sanitizers)
CONFIGURE = cmake --preset $(PRESET)
PROGRAMS = cmake --build $(BUILD) --target OrvaneSE orvanectl

.PHONY: all test lint soak demo bench bench-net fuzz deb clean
all:
	$(INSTALL)
	$(CONFIGURE)
	$(PROGRAMS)

test:
	$(INSTALL) test
	$(CONFIGURE)
	cmake --build $(BUILD)
	ctest --test-dir $(BUILD) --output-on-failure --timeout 300 --no-tests=error

# The linter needs the headers that the build generates, and the command line that compiles each file. The tests compile
# some files of the macOS platform, so the linter needs the packages of the tests, too.
lint:
	$(INSTALL) test lint
	$(CONFIGURE)
	cmake --build $(BUILD)
	tools/lint $(BUILD)

soak:
	$(INSTALL) test
	$(CONFIGURE)
	$(PROGRAMS)
	tests/adversary/run $(BUILD) --seconds 1800

demo:
	$(INSTALL) demo
	$(CONFIGURE)
	$(PROGRAMS)
	demo/run $(BUILD)

bench bench-net:
	$(INSTALL) bench
	$(CONFIGURE)
	cmake --build $(BUILD) --target run-$(if $(filter bench-net,$@),net-)benchmarks

fuzz: PRESET = fuzz
fuzz:
	$(INSTALL)
	$(CONFIGURE)
	cmake --build $(BUILD)

deb:
	$(INSTALL) package
	$(CONFIGURE)
	$(PROGRAMS)
	packaging/make-deb $(BUILD)

clean:
	rm -rf build build-*
