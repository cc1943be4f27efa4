# The README's commands. Everything builds with CMake; these targets only pick directories and flags.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps build test run fuzz bench asan werror clean install uninstall examples

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build build -j $(JOBS)

test: build
	@cd build && ctest --output-on-failure -j $(JOBS)

# The programs in examples/, built against an installation in a scratch prefix with find_package and
# with pkg-config, and run on the sample backup.
examples: build
	@scripts/check-examples build

# Writes the sample backup afresh and shows what the tool makes of it.
run: build
	@rm -rf build/sample
	@build/bin/quiver sample build/sample
	@echo '$$ quiver info build/sample'
	@build/bin/quiver info build/sample
	@echo '$$ quiver ls -l build/sample'
	@build/bin/quiver ls -l build/sample
	@echo '$$ quiver cat build/sample HomeDomain Library/Notes/welcome.txt'
	@build/bin/quiver cat build/sample HomeDomain Library/Notes/welcome.txt

bench: deps
	@cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQUIVER_BUILD_TESTS=OFF >/dev/null
	@cmake --build build-bench -j $(JOBS)

fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIVER_BUILD_FUZZ=ON >/dev/null
	@cmake --build build-fuzz -j $(JOBS)

# Warnings as errors, and the tests under AddressSanitizer and UndefinedBehaviorSanitizer.
werror: deps
	@cmake -S . -B build-werror -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIVER_WERROR=ON -DQUIVER_BUILD_BENCH=ON >/dev/null
	@cmake --build build-werror -j $(JOBS)

asan: deps
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUIVER_SANITIZE=address,undefined -DQUIVER_BUILD_BENCH=OFF >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# PREFIX (default /usr/local) and DESTDIR as usual; what was installed is listed in
# build/install_manifest.txt, which `make uninstall` removes.
PREFIX ?= /usr/local
install: build
	@cmake --install build --prefix "$(PREFIX)"

uninstall:
	@test -f build/install_manifest.txt || { echo "nothing installed from this tree"; exit 1; }
	@while read -r file; do rm -f "$(DESTDIR)$$file"; done < build/install_manifest.txt
	@echo "removed the files listed in build/install_manifest.txt"

clean:
	rm -rf build build-bench build-fuzz build-werror build-asan
