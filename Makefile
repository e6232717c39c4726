# `make test` and `make demo` do all set-up on a fresh machine (see scripts/bootstrap).
VENV   := .venv
PY     := $(VENV)/bin/python
BUILD  := build
ASAN_BUILD  := build-asan
DEBUG_BUILD := build-dbg
export PATH := $(CURDIR)/$(VENV)/bin:$(PATH)
export PYTHONPATH := $(CURDIR)/$(BUILD):$(CURDIR)/host

.PHONY: all bootstrap build test suite demo bench check-asan check-refleaks clean

all: build

bootstrap:
	@bash scripts/bootstrap

# A new virtual environment may mean a new interpreter: configure the build afresh for it, with
# the machine file the bootstrap writes for that interpreter.
$(BUILD)/build.ninja: $(VENV)/.complete native.ini
	rm -rf $(BUILD)
	meson setup $(BUILD) --native-file native.ini >/dev/null

$(VENV)/.complete native.ini: bootstrap

build: bootstrap $(BUILD)/build.ninja
	@meson compile -C $(BUILD) >/dev/null

# The suite, the suite again under the sanitizers (check-asan) and the leak checks on the debug
# interpreter (check-refleaks), side by side: each pass is one process, and the machine has two
# cores. Each pass's output is printed whole when it ends.
test: build
	@$(MAKE) --no-print-directory -j2 --output-sync=target suite check-asan check-refleaks

suite: build
	$(PY) -m pytest -q

demo: build
	$(PY) demo/run.py

# Every benchmark in one table, also written to bench/results.md.
bench: build
	$(PY) bench/run_all.py

$(ASAN_BUILD)/build.ninja: $(VENV)/.complete native.ini
	rm -rf $(ASAN_BUILD)
	meson setup $(ASAN_BUILD) --native-file native.ini -Dbuildtype=debug -Db_sanitize=address,undefined -Db_lundef=false >/dev/null

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer (see scripts/check-asan).
check-asan: bootstrap $(ASAN_BUILD)/build.ninja
	@meson compile -C $(ASAN_BUILD) >/dev/null
	bash scripts/check-asan $(ASAN_BUILD)

# Built for the debug interpreter the bootstrap provides, named to meson in a machine file.
# tree-sitter's binding is built for it too (into site/), so that the references it takes and
# drops are counted like everyone else's; its multiarch pyconfig.h is found as
# native.ini (written by the bootstrap) tells meson.
$(DEBUG_BUILD)/build.ninja: $(VENV)/.complete native.ini
	rm -rf $(DEBUG_BUILD) && mkdir -p $(DEBUG_BUILD)
	python=$$(bash scripts/bootstrap --debug-python) && \
		printf "[binaries]\npython = '%s'\n" "$$python" > $(DEBUG_BUILD)/python.ini && \
		CFLAGS="-idirafter $$(dirname "$$python")/../include" $(PY) -m pip --python "$$python" install -q \
			--disable-pip-version-check --root-user-action=ignore --no-deps --no-binary tree-sitter \
			--target $(DEBUG_BUILD)/site "$$(grep '^tree-sitter==' requirements.txt)"
	meson setup $(DEBUG_BUILD) -Dbuildtype=debug --native-file native.ini --native-file $(DEBUG_BUILD)/python.ini >/dev/null

# The crash fuzzer and the leak pass on the debug interpreter (see scripts/check-refleaks).
check-refleaks: bootstrap $(DEBUG_BUILD)/build.ninja
	@meson compile -C $(DEBUG_BUILD) >/dev/null
	bash scripts/check-refleaks $(DEBUG_BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(DEBUG_BUILD)
