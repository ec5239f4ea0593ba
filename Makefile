# The front door. Each target installs what it needs (once), builds what has changed, and does what its name says.

BUILD      ?= build
BUILD_TYPE ?= Release
PYTHON     := /usr/bin/python3
ARCH       ?=
CROSS_ARCH := $(or $(ARCH),armhf)

# What a step takes is noted under this number, and told at the end.
export TESSARO_RUN := $(shell echo $$PPID)

CONFIGURE = scripts/step configure "Configuring" cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DTESSARO_PRECOMPILED=ON
COMPILE   = scripts/step compile "Compiling" cmake --build $(BUILD)

.DEFAULT_GOAL := help
# Whatever -j says: two targets at once would install packages at once, and be in the way of each other's tests.
.NOTPARALLEL:
.PHONY: help build run test unit-test tool-test system-test web-test screenshots fleet fleet-test soak safety pairing-kills explore tsan sanitize fuzz coverage bench format lint clean
.PHONY: test-packages cross cross-build package release-build package-test board systemd-test

help: ## list the targets
	@sed -n 's/^\([a-z-]*\):.*## \(.*\)/  make \1\t\2/p' $(MAKEFILE_LIST) | expand -t 24

build: ## build the server and its unit tests; BUILD_TYPE=RelWithDebInfo for a debugger
	@scripts/ensure-packages build
	@$(CONFIGURE)
	@$(COMPILE)

run: ## run the server on the simulated installation and watch it; WEB=1 in the browser; CAPTURE=file.pcapng keeps it
	@scripts/ensure-packages build run $(if $(WEB),agent)
	@$(CONFIGURE)
	@$(COMPILE) --target tessaroserver
	@scripts/step --shown tour "the tour" bench/run --server $(BUILD)/tessaroserver $(addprefix --scene ,$(SCENE)) $(if $(CAPTURE),--capture "$(CAPTURE)") $(if $(WEB),--web)
	@scripts/times

test: test-packages unit-test tool-test system-test ## all tests that need no board; CI runs lint and board, too
	@scripts/times

test-packages:
	@scripts/ensure-packages build test agent

unit-test: build ## the unit tests alone
	@scripts/step --shown unit-test "unit tests" ctest --test-dir $(BUILD) --output-on-failure --parallel 4

tool-test: ## the tools for installers and operators
	@scripts/ensure-packages test agent
	@scripts/step --shown tool-test "tests of the tools" $(PYTHON) -m pytest -p no:cacheprovider -q -n 2 tests/tools

system-test: build ## the real binary on the simulated installation, and a quarter of an hour of soak, in virtual time, beside it
	@scripts/ensure-packages test agent
	@scripts/step --shown system-test "system tests and soak" scripts/system-tests $(BUILD)/tessaroserver --soak

web-test: build ## the unit's page and the bench's in a headless browser
	@scripts/ensure-packages test agent web
	@$(PYTHON) -m pytest -p no:cacheprovider -q -n 2 tests/web --server $(BUILD)/tessaroserver

fleet: build ## UNITS (20) simulated base units with their agents under a real Prometheus; three break, alerts fire and resolve
	@scripts/ensure-packages run agent fleet
	@bench/fleet --units $(or $(UNITS),20) --server $(BUILD)/tessaroserver

fleet-test: build ## the fleet's files with Prometheus' own judge, and the show of "fleet" ten times faster
	@scripts/ensure-packages test agent fleet
	@$(PYTHON) -m pytest -p no:cacheprovider -q tests/fleet --server $(BUILD)/tessaroserver

screenshots: build ## make the pictures of the pages in docs/ anew
	@scripts/ensure-packages test agent web
	@$(PYTHON) tests/web/screenshots.py $(BUILD)/tessaroserver docs/pictures

soak: build ## all peers with seeded faults, SEED (1): at ten times the nominal pace for MINUTES (10), or for DAYS of virtual time
	@scripts/ensure-packages run
	@bench/soak $(if $(DAYS),--days $(DAYS),--minutes $(or $(MINUTES),10)) --seed $(or $(SEED),1) --server $(BUILD)/tessaroserver

safety: build ## whatever stands still, the relay opens in time: TRIES (100) of each stall; OPTIONS="--stall tar --write docs/safety.md"
	@scripts/ensure-packages run safety
	@bench/safety --tries $(or $(TRIES),100) --server $(BUILD)/tessaroserver $(OPTIONS)

pairing-kills: build ## kill the server at TRIES (500) random moments of a pairing, SEED (1), and look at what it leaves
	@scripts/ensure-packages run
	@bench/pairing-kills --tries $(or $(TRIES),500) --seed $(or $(SEED),1) --server $(BUILD)/tessaroserver

explore: build ## look at what links do in small worlds, all sequences and random walks, for SECONDS (60)
	@$(BUILD)/explore/explore --seconds $(or $(SECONDS),60)

tsan: ## unit tests, system tests, two minutes of soak and a reconnect storm under ThreadSanitizer; builds Qt under it once
	@scripts/ensure-packages build test tsan
	@scripts/tsan

sanitize: ## unit and system tests under address and undefined-behaviour sanitizers
	@scripts/ensure-packages build test
	@cmake --preset sanitize >/dev/null
	@cmake --build build-sanitize
	@UBSAN_OPTIONS=print_stacktrace=1 ctest --test-dir build-sanitize --output-on-failure --parallel 4
	@scripts/system-tests build-sanitize/tessaroserver

SECONDS_EACH = $(or $(SECONDS),60)

fuzz: ## run every fuzz target for SECONDS (60) and keep what it finds
	@scripts/ensure-packages build fuzz
	@cmake --preset fuzz >/dev/null
	@cmake --build build-fuzz --target fuzzers
	@fuzz/run-all build-fuzz/fuzz $(SECONDS_EACH)

bench: ## measure latency, CPU time, start-up and single steps (OPTIONS="--quick --realtime")
	@scripts/ensure-packages build bench
	@cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DTESSARO_TESTS=OFF -DTESSARO_BENCHMARKS=ON >/dev/null
	@cmake --build build-release
	@benchmark/run $(OPTIONS)

cross: cross-build ## build Release for the board (ARCH=armhf or arm64) and run its unit tests emulated
	@cmake --build build-$(CROSS_ARCH)
	@scripts/cross-test build-$(CROSS_ARCH)

cross-build:
	@scripts/ensure-packages build cross cross-$(CROSS_ARCH)
	@scripts/cross-sysroot $(CROSS_ARCH) >/dev/null
	@cmake --preset $(CROSS_ARCH) --log-level=WARNING >/dev/null
	@scripts/step compile-$(CROSS_ARCH) "Compiling for $(CROSS_ARCH)" cmake --build build-$(CROSS_ARCH) --target tessaroserver tessaro-relay-open

ifeq ($(ARCH),)
package: release-build ## a Debian package for this machine, or for a board (ARCH=armhf or arm64)
	@scripts/ensure-packages package
	@scripts/package native
else
package: cross-build
	@scripts/ensure-packages package
	@scripts/package $(ARCH)
endif

release-build:
	@scripts/ensure-packages build
	@cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-release --target tessaroserver tessaro-relay-open

systemd-test: release-build ## the package's unit under a real systemd: however the server ends or hangs, the relay opens
	@scripts/package-test tests/packaging/test_service_manager.py

package-test: release-build ## install, upgrade and remove the package in a clean Debian
	@scripts/package-test

board: ## the program for the board on the emulated board, with the peers at its real devices
	@scripts/board build-armhf

format: ## rewrite the C++ sources in the house style
	@scripts/ensure-packages lint
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

lint: build ## check style and run the static analysers
	@scripts/ensure-packages lint
	@scripts/lint $(BUILD)

coverage: ## line and branch coverage of the server's code by unit and system tests
	@scripts/ensure-packages build test coverage
	@scripts/coverage

clean: ## remove everything that was built
	@rm -rf build build-*
