# make run   builds and serves examples/ (installs what is missing first)
# make test  builds and runs every test, also under AddressSanitizer and UBSan
# make package builds the Debian package into build-deb/ and checks it with lintian

BUILD      := build
ASAN_BUILD := build-asan
JOBS       := $(shell nproc)

.PHONY: all deps build build-asan run package test test-unit test-asan test-clients test-hardening test-fuzz test-serve test-follow test-link test-https test-as-user bench-quick clean

all: build

deps:
	@scripts/install-deps build test

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DVARNOK_SANITIZE=ON >/dev/null
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# scripts/serve (build/varnok-serve) confines the server to examples/, prints the links below its
# start-up screen, and starts it again when a signal ends it.
run: build
	@scripts/install-deps serve
	exec scripts/serve examples

test-unit: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-asan: build-asan
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# The sample game in headless Chromium, and the start-up screen's QR code read off xterm.
test-clients: build
	@scripts/install-deps browser
	tests/clients/run $(BUILD)/varnok-http-server

# varnok-link's symbols read by three decoders from the grid and off xterm, its links opened in Chromium.
test-link: build
	@scripts/install-deps link
	tests/link/run $(BUILD)

# varnok-serve following the network in a namespace: a table of changes, followed or left alone, with a
# client asking throughout (as root, or with sudo -n).
test-follow: build
	@scripts/install-deps serve
	tests/serve/follow $(BUILD)

# varnok-serve --https in a network namespace: certificates, the TLS front, hostile clients, the screen,
# and the three engines trusting the CA (as root, or with sudo -n).
test-https: build
	@scripts/install-deps https browser
	tests/https/run $(BUILD)

# The 100 000-request soak (the bad-input campaign runs with the unit tests, in both builds).
test-hardening: build
	$(BUILD)/soak_test

# Every fuzz target for a bounded time under ASan and UBSan (FUZZ_SECONDS each).
FUZZ_SECONDS := 30
test-fuzz: deps
	@scripts/install-deps fuzz
	@scripts/install-deps fuzz-runtime
	fuzz/run --seconds $(FUZZ_SECONDS)

# Ours and the two reference loops, 1 s per cell: keeps the benchmark runnable; asserts no speed.
bench-quick: build
	@scripts/install-deps bench-quick
	bench/run --quick

# The launcher against the program run directly: climbs out of the folder, screens, hostile clients.
test-serve: build
	@scripts/install-deps serve
	tests/serve/run $(BUILD)/varnok-http-server

# The launcher's two tests again as an ordinary user with no sudo (an account made for it when root
# runs this), as most people run varnok-serve.
test-as-user: build
	@scripts/install-deps serve link
	tests/as-user $(BUILD)

# The Debian package from the committed tree (HEAD): build dependencies, tests and lintian; build-deb/*.deb.
package:
	scripts/build-package

test: test-unit test-asan test-clients test-hardening test-fuzz test-serve test-follow test-link test-https

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-fuzz build-deb examples/varnok-http-server
