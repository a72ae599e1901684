# Short commands for the usual tasks. Each first installs the missing packages that it needs, with
# tools/install-packages. CMake does the builds, with the presets in CMakePresets.json.
PRESET ?= release
BUILD = $(if $(filter release,$(PRESET)),build,build-$(PRESET))
INSTALL = tools/install-packages $(if $(filter arm64,$(PRESET)),--for arm64 arm64) build \
  $(if $(filter asan tsan fuzz,$(PRESET)),sanitizers)
CONFIGURE = cmake --preset $(PRESET)
PROGRAMS = cmake --build $(BUILD) --target programs
# These tests start other programs of the build, or need BPF, netfilter, a socket's cookie, openat2(2), /proc/PID/exe or
# PR_SET_CHILD_SUBREAPER. qemu's user mode offers none of this.
NOT_IN_QEMU = SocketOwnerTest|SocketAborter|SecurityTest.Identifies|ProcessTest.MakesTheApplication|$\
  ProcessTest.NoticesEachChange|XPC.StopsReading|PacketQueue.WaitsFor|ListCommands.Change|KnownWords
CTEST = ctest --test-dir $(BUILD) --output-on-failure --timeout 300 --no-tests=error
OTHER_RELEASE = $(if $(filter 12,$(shell . /etc/os-release; echo $$VERSION_ID)),13,12)

.PHONY: all test lint check-macos soak demo bench bench-net fuzz deb apt-repository clean
all:
	$(INSTALL)
	$(CONFIGURE)
	$(PROGRAMS)

test:
	$(INSTALL) $(if $(filter arm64,$(PRESET)),,test)
	$(CONFIGURE)
	cmake --build $(BUILD)
	$(CTEST) $(if $(filter arm64,$(PRESET)),--exclude-regex '$(NOT_IN_QEMU)')

# The linter needs the headers that the build generates, and the command line that compiles each file. The tests compile
# some files of the macOS platform, so the linter needs the packages of the tests, too.
lint:
	$(INSTALL) test lint
	$(CONFIGURE)
	ninja -C $(BUILD) $$(ninja -C $(BUILD) -t targets all | sed -n 's/\.h: CUSTOM_COMMAND$$/.h/p')
	tools/lint $(BUILD)

# make check-macos SDK=FOLDER: builds for macOS with the SDK in FOLDER, and checks the result.
check-macos:
	$(if $(SDK),,$(error usage: make check-macos SDK=/path/to/MacOSX.sdk))
	$(INSTALL) macos
	tools/check-macos "$(SDK)" build-macos

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

# make apt-repository KEY=FINGERPRINT URL=ADDRESS: makes the folder build/apt-repository/public, which a web server
# serves at ADDRESS. Builds the packages of the other release in a temporary system, which needs root.
apt-repository:
	$(if $(and $(KEY),$(URL)),,$(error usage: make apt-repository KEY=FINGERPRINT URL=ADDRESS))
	$(INSTALL) repository
	$(MAKE) deb
	mkdir -p $(BUILD)/other-release
	tools/in-debian --output $(BUILD)/other-release $(OTHER_RELEASE) sh -c 'make deb && cp build/orvane-se[_-]* /output'
	packaging/make-apt-repository "$(KEY)" "$(URL)" $(BUILD)/apt-repository $(BUILD)/orvane-se_*.changes \
	  $(BUILD)/other-release/orvane-se_*.changes

clean:
	rm -rf build build-*
