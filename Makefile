# Every target works from a fresh clone: it finds CPython 3.13, and puts tools, packages and results
# below $(BUILD). What it needs beforehand is make, a C++20 compiler, and a CPython 3.13 or uv.

BUILD ?= build
OUT ?= $(BUILD)/demo

SHELL := bash
.SHELLFLAGS := -eu -o pipefail -c
.DELETE_ON_ERROR:
.NOTPARALLEL:
.DEFAULT_GOAL := build

VENV := $(abspath $(BUILD))/venv
PIP := $(VENV)/bin/python -m pip install --quiet --disable-pip-version-check --only-binary :all:
CMAKE := cxx="$$(tools/find-cxx)"; CXX="$$cxx" $(VENV)/bin/cmake -S . -G Ninja \
	-DCMAKE_MAKE_PROGRAM=$(VENV)/bin/ninja -DPython_EXECUTABLE=$(VENV)/bin/python \
	-DCMAKE_INSTALL_MESSAGE=LAZY --log-level=WARNING
CXX_FILES = $(shell find quillstone -name '*.cpp' -o -name '*.hpp')
SAMPLE_PRICES := $(BUILD)/prices/skfolio/datasets/data/sp500_dataset.csv.gz
PRICES ?= $(SAMPLE_PRICES)

# Where the module and the kit beside it are imported from; $(1) is the folder of the build.
with_module = PYTHONPATH=$(abspath $(1)):$(abspath localkit)

.PHONY: build demo test bench torture tsan sanitize lint format clean

build: $(BUILD)/release/build.ninja
	$(VENV)/bin/cmake --build $(BUILD)/release
	$(VENV)/bin/cmake --install $(BUILD)/release --prefix $(BUILD)/python

test: build $(VENV)/.test
	$(call with_module,$(BUILD)/python) $(VENV)/bin/pytest

demo: build $(VENV)/.demo $(filter $(SAMPLE_PRICES),$(PRICES))
	@$(call with_module,$(BUILD)/python) \
		$(VENV)/bin/python examples/research_session.py --prices "$(PRICES)" --out "$(OUT)"

bench: build $(VENV)/.test
	$(call with_module,$(BUILD)/python) $(VENV)/bin/python benchmarks/run.py

# The promises of reliability, tried hard; QUICK=1 is the short form, which tries the same every time: it is to tell
# whether a change broke something. SEED=N repeats a run of either form.
torture: build $(VENV)/.test $(if $(QUICK),,tsan)
	TORTURE_TSAN=$(abspath $(BUILD))/tsan/python $(call with_module,$(BUILD)/python) \
		$(VENV)/bin/python torture/run.py $(if $(QUICK),--quick) $(addprefix --seed ,$(or $(SEED),$(if $(QUICK),1)))

# For the long form of torture. A compiler without ThreadSanitizer is no fault: torture tells that it skips it.
tsan: | $(VENV)/.build
	cxx="$$(tools/find-cxx)"; if tools/sanitizer-runtime tsan $$cxx >/dev/null; then \
		$(CMAKE) -B $(BUILD)/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLSTONE_LTO=OFF \
			-DCMAKE_CXX_FLAGS=-fsanitize=thread; \
		$(VENV)/bin/cmake --build $(BUILD)/tsan; \
		$(VENV)/bin/cmake --install $(BUILD)/tsan --prefix $(BUILD)/tsan/python; \
	fi

# The interpreter is not instrumented: it keeps memory until it exits, hence no leak check, and its
# own allocator would hide out-of-bounds accesses in one of its arenas. A report ends the process, so
# it must not stay in a captured stream: AddressSanitizer writes a file, UndefinedBehaviorSanitizer,
# which cannot, the standard error that pytest leaves alone.
REPORT := $(abspath $(BUILD))/sanitize/report
sanitize: $(BUILD)/sanitize/build.ninja $(VENV)/.test
	$(VENV)/bin/cmake --build $(BUILD)/sanitize
	$(VENV)/bin/cmake --install $(BUILD)/sanitize --prefix $(BUILD)/sanitize/python
	rm -f $(REPORT).*
	cxx="$$(tools/find-cxx)"; runtime="$$(tools/sanitizer-runtime asan $$cxx)"; status=0; \
	LD_PRELOAD="$$runtime" PYTHONMALLOC=malloc ASAN_OPTIONS=detect_leaks=0:log_path=$(REPORT) \
		UBSAN_OPTIONS=print_stacktrace=1 \
		$(call with_module,$(BUILD)/sanitize/python) $(VENV)/bin/pytest --capture=sys || status=$$?; \
	if compgen -G '$(REPORT).*' >/dev/null; then cat $(REPORT).*; exit 1; fi; exit $$status

lint: $(VENV)/.lint $(VENV)/.build
	$(VENV)/bin/clang-format --dry-run --Werror $(CXX_FILES)
	$(CMAKE) -B $(BUILD)/lint -DQUILLSTONE_LTO=OFF -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
	$(VENV)/bin/python tools/lint_cpp.py $(BUILD)/lint
	$(VENV)/bin/ruff check
	$(VENV)/bin/ruff format --check

format: $(VENV)/.lint
	$(VENV)/bin/clang-format -i $(CXX_FILES)
	$(VENV)/bin/ruff check --fix
	$(VENV)/bin/ruff format

clean:
	rm -rf $(BUILD) .pytest_cache .ruff_cache .mypy_cache .hypothesis

$(BUILD)/release/build.ninja: | $(VENV)/.build
	$(CMAKE) -B $(@D) -DCMAKE_BUILD_TYPE=Release -DQUILLSTONE_WERROR=ON

$(BUILD)/sanitize/build.ninja: | $(VENV)/.build
	$(CMAKE) -B $(@D) -DCMAKE_BUILD_TYPE=Debug -DQUILLSTONE_SANITIZE=ON

$(VENV)/.made: tools/find-python
	python="$$(tools/find-python "$(abspath $(BUILD))")"; "$$python" -m venv --clear $(VENV)
	touch $@

$(VENV)/.build $(VENV)/.test $(VENV)/.demo $(VENV)/.lint: $(VENV)/.%: $(VENV)/.made $(wildcard requirements/*.txt)
	$(PIP) -r requirements/$*.txt
	touch $@

$(SAMPLE_PRICES): $(VENV)/.made requirements/prices.txt requirements/constraints.txt
	$(PIP) --no-deps --no-compile --upgrade --target $(BUILD)/prices -r requirements/prices.txt
	touch $@
