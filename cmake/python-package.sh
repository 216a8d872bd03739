#!/usr/bin/env bash
# Makes the Debian package python3-qj7mem00 from python/ and prints its path.
#
#   cmake/python-package.sh FOLDER [MAINTAINER]
#
# FOLDER      folder for the package
# MAINTAINER  maintainer of the package: NAME <ADDRESS>
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
maintainer=${2:-QJ7MEM00 maintainers <maintainers@qj7mem00.invalid>}
folder=$(mkdir -p "$1" && cd "$1" && pwd)
version=$(sed -n 's/^version = "\(.*\)"$/\1/p' "$root/python/pyproject.toml")
package=$folder/python3-qj7mem00_$version-1_all.deb

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/wheel" "$work/tree/DEBIAN" "$work/tree/usr/lib/python3/dist-packages" \
  "$work/tree/usr/share/doc/python3-qj7mem00"
chmod 755 "$work/tree"

# The files that pip would install, in the folder where Debian's Python looks.
(cd "$root/python" && python3 -B -c 'import build_backend, sys
build_backend.build_wheel(sys.argv[1])' "$work/wheel")
python3 -m zipfile -e "$work"/wheel/*.whl "$work/tree/usr/lib/python3/dist-packages"
cp "$root/docs/python.md" "$work/tree/usr/share/doc/python3-qj7mem00/"

# The files that every package for Debian has, as in MemPackages.cmake.
about=$work/tree/usr/share/doc/python3-qj7mem00
filled() {
  sed -e "s/@PROJECT_VERSION@/$version/; s/@CPACK_DEBIAN_PACKAGE_RELEASE@/1/" \
    -e "s|@MEM_MAINTAINER@|$maintainer|" "$root/cmake/debian/$1.in"
}
filled copyright >"$about/copyright"
filled changelog | gzip -9n >"$about/changelog.Debian.gz"
gzip -9nc "$root/CHANGELOG.md" >"$about/changelog.gz"
mkdir -p "$work/tree/usr/share/lintian/overrides"
cp "$root/cmake/debian/python3-qj7mem00.lintian-overrides" \
  "$work/tree/usr/share/lintian/overrides/python3-qj7mem00"
find "$work/tree/usr" -type f -exec chmod 644 {} +

cat >"$work/tree/DEBIAN/control" <<END
Package: python3-qj7mem00
Version: $version-1
Section: python
Priority: optional
Architecture: all
Depends: python3 (>= 3.11), qj7mem00 (>= $version)
Maintainer: $maintainer
Installed-Size: $(du -sk "$work/tree/usr" | cut -f1)
Description: memory services of QJ7MEM00 for Python
 Loads the library, is its host, calls every service by name with checked
 arguments, and reads and writes port strings and packed chains. Needs only
 Python's standard library and the library itself.
END
dpkg-deb --root-owner-group --build "$work/tree" "$package" >/dev/null
echo "$package"
