# SPDX-License-Identifier: GPL-3.0-or-later
# Lumora: `make run` builds and starts the application, `make test` builds and runs the whole suite.
# Each target installs the Debian packages that are missing first (scripts/install-deps.sh).

CMAKE   ?= cmake
JOBS    ?= $(shell nproc)
RELEASE := build/release
TESTING := build/asan
TSAN    := build/tsan
FUZZ    := build/fuzz
FUZZ_SECONDS ?= 60

.PHONY: all deps release run test test-desktops test-desktops-in-use tsan fuzz bench demo demo-probe install deb check-package clean

all: release

deps:
	@bash scripts/install-deps.sh

$(RELEASE)/build.ninja:
	$(CMAKE) -S . -B $(RELEASE) -G Ninja -DCMAKE_BUILD_TYPE=Release

release: deps $(RELEASE)/build.ninja
	$(CMAKE) --build $(RELEASE) -j $(JOBS)

run: release
	./$(RELEASE)/Lumora/lumora

$(TESTING)/build.ninja:
	$(CMAKE) -S . -B $(TESTING) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMORA_SANITIZE=address,undefined

test: deps $(TESTING)/build.ninja
	$(CMAKE) --build $(TESTING) -j $(JOBS)
	ctest --test-dir $(TESTING) --output-on-failure -j $(JOBS) --timeout 300

# The tray application on the real desktops, started headless (root: they run as a test user made for them):
# sway + waybar, Xfce's panel, GNOME Shell without and with the AppIndicator extension, KWin + plasmashell.
# Screenshots in build/release/desktops/<desktop>/. DESKTOPS chooses which.
DESKTOPS ?= sway xfce gnome gnome-appindicator kde
test-desktops: release
	@bash scripts/install-desktop-deps.sh
	timeout -k 10 1000 bash tests/desktops/run.sh $(RELEASE) $(DESKTOPS)

# The monitor the user works on, on real Wayland desktops started headless: StepDisplayInUse, a brightness key through
# the key service and the on-screen display with a native window, then an X11 one, on one output and the pointer on
# the other; prints a key's time until its value is on the wire, and the lookup's and the OSD's.
DESKTOPS_IN_USE ?= sway gnome kde
test-desktops-in-use: release
	@bash scripts/install-desktop-deps.sh
	@for d in $(DESKTOPS_IN_USE); do echo "=== $$d"; timeout -k 10 240 bash tests/desktops/display-in-use.sh $$d \
	    $(RELEASE)/Lumora/lumora $(RELEASE)/tools/virtual-desk/virtual-desk $(RELEASE)/desktops-in-use/$$d || exit 1; done

$(TSAN)/build.ninja:
	$(CMAKE) -S . -B $(TSAN) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_SANITIZE=thread

tsan: deps $(TSAN)/build.ninja
	$(CMAKE) --build $(TSAN) -j $(JOBS)
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
	  ctest --test-dir $(TSAN) --output-on-failure -j $(JOBS) --timeout 600 -L race

$(FUZZ)/build.ninja:
	$(CMAKE) -S . -B $(FUZZ) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DLUMORA_FUZZ=ON

fuzz: deps $(FUZZ)/build.ninja
	$(CMAKE) --build $(FUZZ) -j $(JOBS)
	@for f in $(FUZZ)/fuzz/fuzz_*; do \
	  [ -x "$$f" ] || continue; \
	  echo "== $$f for $(FUZZ_SECONDS) s"; \
	  mkdir -p $(FUZZ)/corpus/$$(basename $$f); \
	  $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 $(FUZZ)/corpus/$$(basename $$f) || exit 1; \
	done

bench: release
	@for b in $(RELEASE)/bench/*/bench_*; do [ -f "$$b" ] && [ -x "$$b" ] || continue; echo "== $$b"; $$b || exit 1; done

# The tray application on the virtual desk (emulated monitors and a laptop panel): in your X session when there is
# one, else on a virtual desktop, with a screenshot of the open panel.
demo: release
	bash scripts/demo.sh $(RELEASE)

# The probe on the virtual desk: what `LUMORA_PROBE=1 lumora` reports there.
demo-probe: release
	LUMORA_PROBE=1 ./$(RELEASE)/tools/virtual-desk/virtual-desk -- ./$(RELEASE)/Lumora/lumora

install: release
	$(CMAKE) --install $(RELEASE)

# The Debian packages (lumora, lumora-dev, lumora-dbgsym) in build/deb/, built with dpkg-buildpackage.
deb: deps
	JOBS=$(JOBS) bash scripts/build-deb.sh

# Builds the package, validates it, installs it on this machine, probes the virtual desk with it and removes it
# (root; needs the virtual desk of `make test`).
check-package: deps
	bash scripts/check-package.sh

clean:
	rm -rf build
