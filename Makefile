# The top-level commands. All of them work in a fresh clone; `make help` lists them.

BUILD ?= build
BUILD_SANITIZE ?= build-asan
BUILD_LINT ?= build-lint
BUILD_MUTANTS ?= build-mutants
BUILD_FUZZ ?= build-fuzz
JOBS ?= $(shell nproc)
TEST_REPORTS ?= $(BUILD)/reports
HISTORIES ?= 1000
COMMITS ?= 100000
KILLS ?= 2000
ROUNDS ?= 1000
SEED ?= 1
SECONDS ?= 60
# Numbers of VRFs that `make bench` measures commits with.
VRFS ?= 16,64

.DEFAULT_GOAL := help
.PHONY: help dependencies build build-all build-sanitize compile-commands run test bench mutants proof soak fuzz \
	pictures lint install deb clean

help:
	@echo 'make run      build, boot a throw-away router, log in to each VRF'\''s server'
	@echo 'make test     build, run every test: unit and fuzz corpus under sanitizers, node, system'
	@echo 'make bench    figures beside the floor of the same run'
	@echo 'make mutants  mutation test of src/; FILES=src/acl for some files, SAMPLE=N for some mutants'
	@echo 'make proof    faults and kills at every call, 1,000 random histories beside a model (HISTORIES=N, SEED=N), and'
	@echo '              100,000 commits with 2,000 kills (COMMITS=N, KILLS=N)'
	@echo 'make soak     a day of logins in an hour'
	@echo 'make fuzz     fuzz targets, each for SECONDS=60, or RUNS=N times; TARGETS="line_editor ..." for some'
	@echo 'make lint     format, clang-tidy, cppcheck, shellcheck, include direction'
	@echo 'make build    build into $(BUILD)/'
	@echo 'make pictures draws the pictures of docs/ (needs graphviz)'
	@echo 'make install  install the built system into /, or below DESTDIR'
	@echo 'make deb      build Debian packages into $(BUILD)/packages/'
	@echo 'make clean    remove the build folders'
	@echo
	@echo 'BUILD, BUILD_SANITIZE, BUILD_LINT: the build folders; JOBS: processes at once. Missing Debian packages are installed first.'

dependencies:
	@packaging/install_dependencies

# Two calls may share a folder (several nodes started at once), so one waits for the other.
define build_folder
	@mkdir -p $(1)
	@flock $(1) sh -ec '[ -e $(1)/build.ninja ] || cmake -S . -B $(1) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(2); \
		$(if $(3),cmake --build $(1) --parallel $(JOBS) --target $(3))'
endef

# Full builds take 60 % of the processor time if sources are compiled in groups. For daily work, where a change to one file
# must compile quickly, configure with `make build-all` first.
joined = -DSSH_CFG_JOIN_SOURCES=ON

build: dependencies
	$(call build_folder,$(BUILD),$(joined),product)

build-all: dependencies
	$(call build_folder,$(BUILD),,all)

build-sanitize: dependencies
	$(call build_folder,$(BUILD_SANITIZE),-DSSH_CFG_SANITIZE=ON,sanitized)

# A folder of its own, in which nothing is compiled: the checkers need the command for each source. Reconfigures if sources
# were added or removed since.
compile-commands: dependencies
	$(call build_folder,$(BUILD_LINT))
	@cmake -S . -B $(BUILD_LINT) >/dev/null

run: build
	@node/node --build $(BUILD) run -- examples/run

# The unit tests run under the sanitizers, in a build of their own; what is built here is what the nodes run. The
# benchmarks are built so that they stay in step with the code.
test: dependencies
	$(call build_folder,$(BUILD),$(joined),product benchmarks)
	@MAKE='$(MAKE)' tests/run --build $(BUILD) --sanitize $(BUILD_SANITIZE) --reports $(TEST_REPORTS) --jobs $(JOBS)

bench: dependencies
	$(call build_folder,$(BUILD),$(joined),product benchmarks)
	@bench/run --build $(BUILD) --vrfs $(VRFS)

# Continues where the last run ended. MOST_TESTS=100 limits the tests per mutant to the nearest ones, which is faster, but
# reports some survivors too many. VERDICTS names the file of verdicts, to be kept elsewhere or brought from another machine.
# WAIT_WHILE names a file: while it exists, the run pauses.
mutants: dependencies
	@nice -n 19 tools/mutants/run --work $(BUILD_MUTANTS) --jobs $(JOBS) --document docs/proof.md \
		$(if $(FILES),--files $(FILES)) $(if $(SAMPLE),--sample $(SAMPLE)) \
		$(if $(MOST_TESTS),--most-tests $(MOST_TESTS)) \
		$(if $(VERDICTS),--verdicts $(VERDICTS)) $(if $(WAIT_WHILE),--wait-while $(WAIT_WHILE))

# Every call that concerns files fails with every error, and is the last one before a kill; `make test` tries some of them.
# A history that differs is shortened and kept in tests/models/kept, to be carried out by every `make test`.
proof: dependencies
	$(call build_folder,$(BUILD),$(joined),product unit_tests platform_linux_tests)
	@EVERY_CALL=1 nice -n 19 $(BUILD)/tests/unit_tests \
		--gtest_filter='*failing_file_calls_test*:*interrupted_commits_test*:*killed_anywhere*'
	@EVERY_CALL=1 nice -n 19 $(BUILD)/tests/platform_linux_tests --gtest_filter='*datastore_crash_test*:*datastore_fault_test*'
	@nice -n 19 tests/models/run --build $(BUILD) --histories $(HISTORIES) --seed $(SEED) --jobs $(JOBS)
	@nice -n 19 tests/models/load --build $(BUILD) --commits $(COMMITS) --kills $(KILLS) --rounds $(ROUNDS) --seed $(SEED)

soak: build
	@node/node --build $(BUILD) run -- tests/system/login_soak

# An input that fails is kept in fuzz/corpus, which every `make test` replays.
fuzz: dependencies
	$(call build_folder,$(BUILD_FUZZ),-DSSH_CFG_FUZZ=ON -DSSH_CFG_JOIN_SOURCES=ON -DCMAKE_CXX_COMPILER=clang++,fuzz_targets)
	@nice -n 19 tools/fuzz/run --build $(BUILD_FUZZ) --jobs $(JOBS) --document docs/proof.md \
		$(if $(RUNS),--runs $(RUNS),--seconds $(SECONDS)) $(if $(TARGETS),--targets $(TARGETS))

# Needs Debian's graphviz, which nothing else does.
pictures:
	@for source in docs/pictures/*.dot; do dot -Tsvg "$$source" -o "$${source%.dot}.svg"; done

install: build
	cmake --install $(BUILD)

# Compiled once more, with Debian's own flags.
deb: dependencies
	@packaging/build_packages $(BUILD)/packages

clean:
	rm -rf $(BUILD) $(BUILD_SANITIZE) $(BUILD_LINT) $(BUILD_MUTANTS) $(BUILD_FUZZ)

# The files to check are those that git tracks or would add.
sources = $(sort $(shell git ls-files -co --exclude-standard -- $(1)))
compiled = $(call sources,'src/*.cpp' 'platform/*.cpp' 'tools/*.cpp')
headers = $(call sources,'src/*.h' 'platform/*.h' 'tools/*.h')
formatted = $(call sources,'*.cpp' '*.h')
scripts = $(shell git ls-files -co --exclude-standard | xargs awk 'FNR == 1 { if (/^.!.*\/(env )?(ba)?sh( |$$)/) print FILENAME; nextfile }') node/shell_rc

lint: compile-commands
	@echo 'clang-format: $(words $(formatted)) files'
	@clang-format --dry-run -Werror $(formatted)
	@echo 'shellcheck: $(words $(scripts)) scripts'
	@shellcheck $(scripts)
	@echo 'include direction'
	@tools/check_includes
	@echo 'cppcheck'
	@cppcheck --quiet --std=c++20 --language=c++ --error-exitcode=1 --inline-suppr -j $(JOBS) \
		--enable=warning,performance,portability --suppressions-list=.cppcheck-suppressions \
		--cppcheck-build-dir=$(BUILD_LINT)/cppcheck -I src -I platform -I platform/include -I tools/ssh_cfg_ctl $(compiled)
	@echo 'clang-tidy: $(words $(compiled)) files'
	@tools/tidy $(BUILD_LINT) --jobs $(JOBS) --headers $(headers) -- $(compiled)
	@echo 'lint: clean'
