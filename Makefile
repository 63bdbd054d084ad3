# What a person types. Each target does its own set-up; underneath are CMake, Ninja and CTest.

PRESET   := $(if $(SANITIZE),sanitize,dev)
BUILD    := build/$(PRESET)
# The system root's own tables, without which GNUstep's text conversions fall back.
export GCONV_PATH := $(CURDIR)/build/sysroot/usr/lib/i386-linux-gnu/gconv

.PHONY: help setup build demo test plugin coverage format check-format clean

help:
	@sed -n 's/^#: //p' Makefile

#: make demo      run a whole update: HOST=2011.4  FEED=URL  CHECK=information  PLUGIN=macho
#: make test      run every test; SANITIZE=1 runs them under the sanitizers
#: make plugin    build dist/SparkleKVZ.xojo_plugin, the file for the host's Plugins folder
#: make coverage  lines and branches that the tests reach, as a report
#: make format    format the sources
#: make clean     remove what was built, but keep the 32-bit system root

setup:
	@tools/setup

build: setup
	@tools/build $(PRESET)

demo: setup
	@tools/build $(PRESET) demo
	@$(BUILD)/bin/demo $(if $(HOST),--host=$(HOST)) $(if $(FEED),--feed='$(FEED)') \
	  $(if $(CHECK),--check=$(CHECK)) $(if $(PLUGIN),--plugin=$(PLUGIN)) \
	  $(if $(COMPARATOR),--comparator=$(COMPARATOR))

test: build check-format
	@tools/test $(PRESET)

coverage: setup
	@tools/coverage

plugin: setup
	@tools/build dev macho_plugin
	@ls -l dist/SparkleKVZ.xojo_plugin

check-format: setup
	@tools/format --check

format: setup
	@tools/format

clean:
	rm -rf build/dev build/sanitize build/coverage dist
