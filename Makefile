# Every target does its own set-up: Debian packages where root, everything else in .venv and build/.

.PHONY: build demo fleet test docs check sanitizers clang wheel
.PHONY: bench bench-gate bench-record lint format clean

SETUP := @scripts/setup
PYTHON := .venv/bin/python
CONFIGURE := @cmake --preset release >/dev/null

CXX_FILES = $(shell git ls-files 'engines/*.h' 'engines/*.cpp' 'tests/core/*.h' 'tests/core/*.cpp' 'checks/*.h' 'checks/*.cpp')

export VIRTUAL_ENV := $(CURDIR)/.venv
export PATH := $(VIRTUAL_ENV)/bin:$(PATH)
export PYTHONPATH := $(CURDIR)/build

build:
	$(SETUP) g++ -- build
	$(CONFIGURE)
	@cmake --build --preset release --target decision_bounds

demo: build
	$(SETUP) -- demo postgres
	@PYTHONPATH=$(PYTHONPATH):examples $(PYTHON) -m decision_client $(ARGS)

# Standard output has nothing but the result.
fleet:
	@$(MAKE) --no-print-directory build >&2
	$(SETUP) postgresql -- fleet demo >&2
	@PYTHONPATH=$(PYTHONPATH):examples $(PYTHON) -m fleet $(ARGS)

test:
	$(SETUP) g++ libgtest-dev -- build test demo fleet
	-$(SETUP) postgresql --
	$(CONFIGURE) -DDECISION_BOUNDS_TESTS=ON
	@cmake --build --preset release
	@ctest --preset release
	@$(PYTHON) -m pytest $(ARGS)

# What the module promises, at length and with figures; ARGS names some of the checks.
check:
	$(SETUP) g++ postgresql -- build demo fleet
	$(CONFIGURE)
	@cmake --build --preset release --target decision_bounds failing_malloc schedules
	@PYTHONPATH=$(PYTHONPATH):tests:model:examples $(PYTHON) -m checks $(ARGS)

docs:
	$(SETUP) -- docs
	@.venv/bin/sphinx-build -q --fail-on-warning --keep-going -d build/docs.cache docs build/docs
	@echo "The pages are in build/docs/index.html."

# The core's tests under each sanitizer; what clang says of the locks.
sanitizers:
	$(SETUP) g++ libgtest-dev -- build
	@cmake --workflow --preset thread
	@cmake --workflow --preset address

clang:
	$(SETUP) g++ clang-19 libgtest-dev -- build
	@cmake --workflow --preset clang

# In dist/ what an index takes: the sources, and the wheel that is built from them.
wheel: build
	$(SETUP) -- test wheel
	@rm -rf dist build/dist
	@$(PYTHON) -m build --quiet --outdir build/dist
	@.venv/bin/auditwheel repair --wheel-dir dist build/dist/*.whl
	@cp build/dist/*.tar.gz dist
	@$(PYTHON) -m pytest -m packaging $(ARGS)

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
	rm -rf build build-* dist .venv
