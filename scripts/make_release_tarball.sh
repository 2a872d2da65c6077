#!/usr/bin/env bash
# Makes the release tarball nvq-http-VERSION.tar.gz (one top directory
# nvq-http-VERSION/) of a commit with git archive: what the Buildroot and
# Yocto recipes in packaging/ build from. Only committed files go in.
#   make_release_tarball.sh [OUTPUT_DIR [COMMIT]]   (default: build/, HEAD)
# Prints the tarball's path, then its SHA-256 in the form of a Buildroot
# .hash line.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$repo/build}
commit=${2:-HEAD}
version=$(git -C "$repo" show "$commit:CMakeLists.txt" |
  sed -n 's/^project(NVQHttp VERSION \([0-9][0-9.]*\).*/\1/p')
[ -n "$version" ] || { echo "no project version in $commit:CMakeLists.txt" >&2; exit 1; }
name=nvq-http-$version
mkdir -p "$out"
# git archive compresses with gzip -n and stamps the commit's time: the same
# commit always gives the same bytes, so the hash can be published.
git -C "$repo" archive --format=tar.gz --prefix="$name/" -o "$out/$name.tar.gz" "$commit"
echo "$out/$name.tar.gz"
echo "sha256  $(sha256sum "$out/$name.tar.gz" | cut -d' ' -f1)  $name.tar.gz"
