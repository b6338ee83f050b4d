# Every target does its own set-up: Debian packages where root, everything else in .venv and build/.
# What follows ## is what `make help` says of a target.

.PHONY: help build demo fleet test docs check sanitizers clang wheel
.PHONY: bench bench-gate bench-record lint format clean

SETUP := @scripts/setup
PYTHON := .venv/bin/python
CONFIGURE := @cmake --preset release >/dev/null

CXX_FILES = $(shell git ls-files 'engines/*.h' 'engines/*.cpp' 'tests/core/*.h' 'tests/core/*.cpp' 'checks/*.h' 'checks/*.cpp' 'support/*.cpp')

# Half of a test's time is waiting; where one is to be looked at alone, ARGS="-n 0 --pdb".
SIDE_BY_SIDE := -n 3
# Not the account's, the demo's, the docs', the fleet's and the packages'.
MODULE_TESTS := --ignore=tests/fleet --ignore=tests/account --ignore-glob='*/test_d[eo]*.py'
# The interpreter is not made for sanitizers: their library is loaded before all else.
SANITIZED = LD_PRELOAD="$(shell $(CXX) -print-file-name=libasan.so) $(shell $(CXX) -print-file-name=libstdc++.so)" \
	ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1 UBSAN_OPTIONS=halt_on_error=1 PYTHONMALLOC=malloc \
	DECISION_BOUNDS_PATH=$(CURDIR)/build-address

export VIRTUAL_ENV := $(CURDIR)/.venv
export PATH := $(VIRTUAL_ENV)/bin:$(PATH)
export PYTHONPATH := $(CURDIR)/build

help: ## this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "make %-13s %s\n", $$1, $$2 }' Makefile
	@echo 'ARGS="..." goes to what is run: make demo ARGS="--help", make test ARGS="-k share".'

build: ## the module, in build/
	$(SETUP) g++ -- build
	$(CONFIGURE)
	@cmake --build --preset release --target decision_bounds

demo: build ## a batch pass over text files, against an endpoint on this machine
	$(SETUP) -- demo postgres
	@PYTHONPATH="$$PYTHONPATH:examples" $(PYTHON) -m decision_client $(ARGS)

# Standard output has nothing but the result.
fleet: ## one cap over several processes; ARGS=--postgres with an account in PostgreSQL
	@$(MAKE) --no-print-directory build >&2
	$(SETUP) $(if $(findstring --postgres,$(ARGS)),postgresql) -- fleet demo >&2
	@PYTHONPATH="$$PYTHONPATH:examples" $(PYTHON) -m fleet $(ARGS)

test: ## builds the module and proves it
	$(SETUP) g++ libgtest-dev -- build test demo fleet
	-$(SETUP) postgresql pgbouncer --
	$(CONFIGURE) -DDECISION_BOUNDS_TESTS=ON
	@cmake --build --preset release
	@ctest --preset release
	@$(PYTHON) -m pytest $(SIDE_BY_SIDE) $(ARGS)

check: ## what the module promises, at length and with figures
	$(SETUP) g++ postgresql -- build demo fleet
	$(CONFIGURE)
	@cmake --build --preset release --target decision_bounds failing_malloc schedules
	@PYTHONPATH="$$PYTHONPATH:tests:model:examples" $(PYTHON) -m checks $(ARGS)

docs: ## the pages of docs/, in build/docs
	$(SETUP) -- docs
	@$(PYTHON) -m sphinx -q --fail-on-warning --keep-going -d build/docs.cache docs build/docs
	@echo "The pages are in build/docs/index.html."

# The tests of the core's lock under each sanitizer, then the module's with the interpreter as it is:
# whose own leaks are not looked for, and whose blocks are malloc's, so that each is watched. Three
# cannot run there: greenlets copy stacks, a thread's stack holds fewer of the larger frames, and
# allocations that fail have a malloc of their own.
sanitizers: ## the lock's tests and the module's, under sanitizers
	$(SETUP) g++ libgtest-dev -- build test
	@cmake --workflow --preset thread
	@cmake --workflow --preset address
	@$(SANITIZED) $(PYTHON) -m pytest $(SIDE_BY_SIDE) $(MODULE_TESTS) --capture=sys \
		-k "not greenlets and not endless_recursion and not without_memory"

clang: ## the whole with clang, which checks what the code says of its locks
	$(SETUP) g++ clang-19 libgtest-dev -- build
	@cmake --workflow --preset clang

# In dist/ what an index takes: the sources, and the wheel that is built from them.
wheel: build ## the packages, in dist/, each tried in a clean environment
	$(SETUP) -- test wheel
	@rm -rf dist build/dist
	@$(PYTHON) -m build --quiet --outdir build/dist
	@$(PYTHON) -m auditwheel repair --wheel-dir dist build/dist/*.whl
	@cp build/dist/*.tar.gz dist
	@$(PYTHON) -m pytest -m packaging $(ARGS)

bench: build ## what a bounded call costs, beside plain Python and other limiters
	$(SETUP) -- bench
	@$(PYTHON) benchmarks/run.py $(ARGS)

# Not time: instructions hold on a busy machine.
bench-gate: build ## instructions per operation, against the recorded counts
	$(SETUP) valgrind --
	@$(PYTHON) benchmarks/gate.py

bench-record: build ## records those counts anew
	$(SETUP) valgrind --
	@$(PYTHON) benchmarks/gate.py --record

lint: ## clang-format, ruff and mypy, in check mode
	$(SETUP) -- lint demo fleet
	@.venv/bin/clang-format --dry-run --Werror $(CXX_FILES)
	@$(PYTHON) -m ruff format --check .
	@$(PYTHON) -m ruff check .
	@$(PYTHON) -m mypy

format: ## what of lint can be applied
	$(SETUP) -- lint
	@.venv/bin/clang-format -i $(CXX_FILES)
	@$(PYTHON) -m ruff format .
	@$(PYTHON) -m ruff check --fix .

clean: ## removes what the others made, .venv too
	rm -rf build build-* dist .venv
