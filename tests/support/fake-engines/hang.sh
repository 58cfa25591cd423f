#!/bin/sh
# A program that prints one line and then sleeps until it is terminated (status
# 15 then, by the signal).

echo "Godot Engine v4.3.stable.fake - waiting for ever"
exec sleep 2147483647
