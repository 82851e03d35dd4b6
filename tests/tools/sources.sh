#!/bin/bash
# Compiles each source of the product alone, as its packages do. The builds of the tests compile
# those of a folder together, where one source can live on what another one includes.
#     sources.sh COMPILER CHECKOUT
set -euo pipefail

compiler=$1
cd "$2"
read -ra modules < <(pkg-config --cflags libmariadb)
find torva app ctl -name '*.cpp' -print0 |
    xargs -0 --max-procs="$(nproc)" --max-args=1 \
        "$compiler" -std=c++17 -fsyntax-only -I. -DTORVA_VERSION='""' "${modules[@]}"
