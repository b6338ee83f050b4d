# Every target does its own set-up: Debian packages where root, everything else in .venv and build/.

.PHONY: build demo test docs bench bench-gate bench-record lint format clean

SETUP := @scripts/setup
PYTHON := .venv/bin/python
CMAKE := .venv/bin/cmake
CONFIGURE := @$(CMAKE) -S . -B build -DPython_EXECUTABLE=$(CURDIR)/$(PYTHON) >/dev/null

CXX_FILES = $(shell git ls-files 'engines/*.h' 'engines/*.cpp' 'tests/core/*.h' 'tests/core/*.cpp')

export PATH := $(CURDIR)/.venv/bin:$(PATH)
export PYTHONPATH := $(CURDIR)/build
export CMAKE_GENERATOR ?= Ninja

build:
	$(SETUP) g++ -- build
	$(CONFIGURE)
	@$(CMAKE) --build build --target decision_bounds

demo: build
	$(SETUP) -- demo
	@PYTHONPATH=$(PYTHONPATH):examples $(PYTHON) -m decision_client $(ARGS)

test:
	$(SETUP) g++ libgtest-dev -- build test demo fleet
	-$(SETUP) postgresql --
	$(CONFIGURE) -DDECISION_BOUNDS_TESTS=ON
	@$(CMAKE) --build build
	@.venv/bin/ctest --test-dir build --output-on-failure
	@$(PYTHON) -m pytest $(ARGS)

docs:
	$(SETUP) -- docs
	@.venv/bin/sphinx-build -q --fail-on-warning --keep-going -d build/docs.cache docs build/docs
	@echo "The pages are in build/docs/index.html."

bench: build
	$(SETUP) -- bench
	@$(PYTHON) benchmarks/run.py $(ARGS)

# Instructions per operation, not time: they hold on a busy machine.
bench-gate: build
	$(SETUP) valgrind --
	@$(PYTHON) benchmarks/gate.py

bench-record: build
	$(SETUP) valgrind --
	@$(PYTHON) benchmarks/gate.py --record

lint:
	$(SETUP) -- lint demo fleet
	@.venv/bin/clang-format --dry-run --Werror $(CXX_FILES)
	@.venv/bin/ruff format --check .
	@.venv/bin/ruff check .
	@.venv/bin/mypy

format:
	$(SETUP) -- lint
	@.venv/bin/clang-format -i $(CXX_FILES)
	@.venv/bin/ruff format .
	@.venv/bin/ruff check --fix .

clean:
	rm -rf build .venv
