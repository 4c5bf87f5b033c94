# The everyday commands. Each sets up what it needs (see scripts/run).
.DEFAULT_GOAL := help
.PHONY: help package package-check portable portable-check scale-out-check docs release players bench soak soak-threads mutants coverage build demo test test-arm64 fuzz format lint shell clean

RUN := scripts/run
PRESET ?= release

help: ## list the commands
	@sed -n 's/^\([a-z0-9-]*\):.*## \(.*\)/  make \1	\2/p' $(MAKEFILE_LIST) | expand -t 24

build: ## build the library and the tools into build/release (PRESET=debug, asan, tsan)
	@$(RUN) sh -c 'cmake --preset $(PRESET) >/dev/null && cmake --build --preset $(PRESET)'

demo: PRESET := demo
demo: export KAVO_ROOT_KIND ?= demo
demo: ## publish a moving test pattern (INPUT=file or camera, SECONDS=limit, ARGS=options)
	@$(RUN) sh -c 'cmake --preset $(PRESET) >/dev/null && { ninja -C build/$(PRESET) -n kavo-publish | grep -q "no work to do" || cmake --build --preset $(PRESET) --target kavo-publish; }'
	@$(RUN) build/$(PRESET)/tools/kavo-publish $(if $(SECONDS),--duration $(SECONDS)) $(ARGS) $(INPUT)

test: ## build and run all tests: release, asan+ubsan, tsan, fuzz (ROOT=testing: on Debian testing)
	@$(if $(filter testing,$(ROOT)),KAVO_ROOT_KIND=testing KAVO_ROOT=always) $(RUN) scripts/test

test-arm64: ## build for arm64 and run the unit tests and a smoke test under QEMU
	@scripts/test-arm64

fuzz: ## run the fuzz drivers for long (SECONDS=600)
	@$(RUN) sh -c 'cmake --preset fuzz -DKAVO_FUZZ_SECONDS=$(or $(SECONDS),600) >/dev/null && cmake --build --preset fuzz && ctest --test-dir build/fuzz --output-on-failure --timeout 100000; status=$$?; cmake --preset fuzz -UKAVO_FUZZ_SECONDS >/dev/null; exit $$status'

bench: ## measure: ours beside live555 as it comes and gst-rtsp-server (TABLES="cpu slow", all of them take 20 minutes)
	@$(RUN) sh -c 'cmake --preset bench >/dev/null && cmake --build --preset bench >/dev/null && bench/run.py $(TABLES)'

mutants: ## put the faults of tests/mutants/faults.txt in, one at a time, and print those no test sees
	@$(RUN) tests/mutants/run

coverage: ## what the tests reach of src/, by folder, and what they never do
	@$(RUN) scripts/coverage

soak: ## publish for long while viewers come and go; fails where memory, descriptors or latency grow (SECONDS=600)
	@$(RUN) sh -c 'cmake --preset release >/dev/null && cmake --build --preset release >/dev/null && bench/soak.py $(or $(SECONDS),600)'

soak-threads: ## submits, removals, exits and viewers at once under the thread sanitizer (SECONDS=600)
	@$(RUN) sh -c 'cmake --preset fuzz -B build/fuzz-thread -DKAVO_SANITIZE=thread -DKAVO_FUZZ_SECONDS=$(or $(SECONDS),600) >/dev/null && cmake --build build/fuzz-thread --target rtspsession_fuzz && ctest --test-dir build/fuzz-thread -R rtspsession --output-on-failure --timeout 100000'

format: ## bring the sources into shape with clang-format
	@$(RUN) sh -c 'find include src tools tests bench examples -name "*.h" -o -name "*.c" -o -name "*.cpp" -o -name "*.hpp" | xargs clang-format -i'

lint: ## check format, spelling, thread annotations and clang-tidy (DEEP=1: across calls)
	@$(RUN) scripts/lint

package: ## make Debian packages and a relocatable archive in build/packages (ARCH=arm64 for arm64)
	@$(if $(filter arm64,$(ARCH)),KAVO_ROOT_KIND=arm64 KAVO_ROOT=always) $(RUN) scripts/package $(ARCH)

package-check: package ## install them into fresh roots, build and run hosts there
	@scripts/check-packages

portable: ## make the archive that runs on Linux of the last years, in build/packages
	@export KAVO_DEBIAN_MIRROR=$$(bash -c '. scripts/common.sh && debian_mirror'); KAVO_ROOT_KIND=portable KAVO_ROOT=always $(RUN) scripts/portable

portable-check: portable ## try it in fresh roots of Debian 12, 13 and testing
	@scripts/check-portable

scale-out-check: package ## try docs/operating.md, scale-out.md and OpenCV in fresh roots: metrics, TLS, HLS and WebRTC in Chromium
	@scripts/check-packages operating scale-out opencv

players: build ## play with every player there is, in a root of their own, and write docs/players.md
	@KAVO_ROOT_KIND=players KAVO_ROOT=always $(RUN) sh -c 'tests/players/table >build/players.md && { sed "/^| player/,\$$d" docs/players.md; cat build/players.md; } >build/page.md && cp build/page.md docs/players.md'

docs: ## make the API reference in build/docs (Doxygen)
	@$(RUN) sh -c 'mkdir -p build && doxygen docs/Doxyfile && echo "The pages are in build/docs/html"'

release: ## check, package and tag the release that the header names
	@scripts/release

shell: ## open a shell where the project can be built
	@$(RUN) bash

clean: ## remove everything built
	rm -rf build
