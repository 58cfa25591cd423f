#!/bin/sh
# A program that prints a few lines and then dies of SIGSEGV, as a crashing
# engine does.

ulimit -c 0 2>/dev/null # no core file in the working folder
echo "Godot Engine v4.3.stable.fake - https://godotengine.org"
echo "Loading the project"
echo "ERROR: handle_crash: Program crashed with signal 11" >&2
kill -SEGV $$
