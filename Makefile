# `make test` and `make demo` do all set-up on a fresh machine (see scripts/bootstrap).
VENV   := .venv
PY     := $(VENV)/bin/python
BUILD  := build
export PATH := $(CURDIR)/$(VENV)/bin:$(PATH)
export PYTHONPATH := $(CURDIR)/$(BUILD):$(CURDIR)/host

.PHONY: all bootstrap build test demo clean

all: build

bootstrap:
	@bash scripts/bootstrap

# A new virtual environment may mean a new interpreter: configure the build afresh for it.
$(BUILD)/build.ninja: $(VENV)/.complete
	rm -rf $(BUILD)
	meson setup $(BUILD) >/dev/null

$(VENV)/.complete: bootstrap

build: bootstrap $(BUILD)/build.ninja
	@meson compile -C $(BUILD) >/dev/null

test: build
	$(PY) -m pytest -q

demo: build
	$(PY) demo/run.py

clean:
	rm -rf $(BUILD)
