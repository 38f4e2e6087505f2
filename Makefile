# Entry points. Each target installs what it needs first.
#   make test   build and run every test: normal, ASan+UBSan, TSan
#   make demo   build everything and run kyheap on real programs
#   make bench  run every benchmark against its peers, write docs/performance.md
#   make stress the long stress run of every thread-safe family, TSan and plain

.PHONY: deps test demo bench stress format clean

deps:
	@scripts/install-deps.sh

test: deps
	@scripts/run-tests.sh

demo: deps
	@scripts/demo.sh

bench: deps
	@scripts/bench-report.sh

stress: deps
	@scripts/run-stress.sh

format:
	@git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
