# What a person types. Each target does its own set-up; underneath are CMake, Ninja and CTest.

PRESET   := $(if $(SANITIZE),sanitize,dev)
BUILD    := build/$(PRESET)
# The system root's own tables, without which GNUstep's text conversions fall back.
export GCONV_PATH := $(CURDIR)/build/sysroot/usr/lib/i386-linux-gnu/gconv

.PHONY: help setup build demo test plugin mac-check torture mutants fuzz soak coverage bench format check-format \
        check-setup release clean

CYCLES  := 100000
STRESS  := 60
SECONDS := 60

# Some shells have a HOST of their own.
ifneq ($(origin HOST),command line)
  HOST :=
endif

# A setting that is misspelt, or another target's, would do nothing, without a word. Those that there
# are stand in the help; a target that it does not name is for insiders, who may say any.
SETTINGS := $(shell awk -v goals='$(MAKECMDGOALS)' ' \
  BEGIN { n = split(goals, list, " "); for (i = 1; i <= n; ++i) wanted[list[i]] } \
  /^\#: make / { name = $$3; named[name] } \
  /^\#: / { text[name] = text[name] " " $$0 } \
  END { any = n == 0; for (goal in wanted) any = any || !(goal in named); \
        for (name in text) if (any || name in wanted) \
          while (match(text[name], /[A-Z]+=/)) { \
            print substr(text[name], RSTART, RLENGTH - 1); \
            text[name] = substr(text[name], RSTART + RLENGTH) } }' Makefile | sort -u)
UNKNOWN  := $(filter-out $(SETTINGS),$(foreach name,$(.VARIABLES),$(if \
              $(filter command,$(origin $(name))),$(name))))
ifneq ($(UNKNOWN),)
  $(error There is no setting $(UNKNOWN) for 'make$(if $(MAKECMDGOALS), $(MAKECMDGOALS))'. There are: $(or \
    $(SETTINGS),none); `make' says what they do)
endif

help:
	@sed -n 's/^#: //p' Makefile

#: make demo      run a whole update: HOST=2011.4  FEED=URL  CHECK=information  PLUGIN=elf
#:                FRAMEWORK=1.6  COMPARATOR=reverse  PICTURE=update.svg
#: make test      run every test: SANITIZE=1 under the sanitizers, SLOWEST=10 names the slowest,
#:                SHUFFLE=SEED  REPEAT=2  ISOLATE=exec (a new program for each)
#: make plugin    build dist/SparkleKVZ.xojo_plugin, the file for the host's Plugins folder
#: make mac-check build dist/SparkleKVZ-mac-check.zip, which proves the plug-in on a user's Mac
#: make coverage  lines and branches that the tests reach, as a report
#: make torture   fail every call of every scenario, one at a time; PLUGIN=macho
#: make mutants   change the product one place at a time: does a test notice? COUNT=50 takes a sample,
#:                SEED=1 a certain one, PLACE=TEXT those whose line has the text; JOBS=2 at once
#: make fuzz      hostile input to all fuzzing targets, for SECONDS=60 in total
#: make soak      CYCLES=100000 update checks in a row, then 8 threads for STRESS=60 seconds
#: make bench     the plug-in's cost beside the least it can cost, into bench/results.md
#: make format    format the sources
#: make check-setup  set up and run the demo as a newcomer without root, in a folder with a space
#: make release   run all of CI's checks, then put the release of this commit together in dist/
#: make clean     remove what was built, but keep the 32-bit system root

setup:
	@tools/setup

build: setup
	@tools/build $(PRESET)

demo: setup
	@tools/build $(PRESET) demo
	@$(BUILD)/bin/demo $(if $(HOST),--host=$(HOST)) $(if $(FEED),--feed='$(FEED)') \
	  $(if $(CHECK),--check=$(CHECK)) $(if $(PLUGIN),--plugin=$(PLUGIN)) \
	  $(if $(FRAMEWORK),--framework=$(FRAMEWORK)) $(if $(COMPARATOR),--comparator=$(COMPARATOR)) \
	  $(if $(PICTURE),--picture='$(PICTURE)')

test: build check-format
	@SLOWEST="$(SLOWEST)" SHUFFLE="$(SHUFFLE)" REPEAT="$(REPEAT)" ISOLATE="$(ISOLATE)" tools/test $(PRESET)

coverage: setup
	@tools/coverage

torture: setup
	@tools/build dev torture
	@build/dev/bin/torture --jobs=2 $(if $(PLUGIN),--plugin=$(PLUGIN))

mutants: setup
	@tools/mutants $(COUNT) $(if $(COUNT),$(SEED))

fuzz: setup
	@tools/fuzz $(SECONDS)

soak: setup
	@tools/build $(PRESET) soak
	@$(BUILD)/bin/soak --cycles=$(CYCLES)
	@$(BUILD)/bin/soak --stress=$(STRESS)

bench: setup
	@tools/bench

plugin: setup
	@tools/build dev macho_plugin
	@ls -l dist/SparkleKVZ.xojo_plugin
	@echo "The bundle in it: $$(stat -c %s build/dev/macho/SparkleKVZ.dylib) bytes"

mac-check: setup
	@tools/build dev mac_check
	@ls -l dist/SparkleKVZ-mac-check.zip

check-format: setup
	@tools/format --check

format: setup
	@tools/format

release: setup
	@tools/release

check-setup: setup
	@tools/check-setup

.DEFAULT:
	@echo "There is no target '$@'. There are:" >&2
	@$(MAKE) --no-print-directory help >&2
	@exit 2

clean:
	rm -rf build/dev build/sanitize build/coverage build/bench dist
