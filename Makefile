# Entry points. Each target installs what it needs first.
#   make test   build and run every test: normal, ASan+UBSan, TSan
#   make demo   build everything and run kyheap on real programs
#   make bench  run the benchmarks (Release build)

.PHONY: deps test demo bench format clean

deps:
	@scripts/install-deps.sh

test: deps
	@scripts/run-tests.sh

demo: deps
	@scripts/demo.sh

bench: deps
	@cmake --preset bench >/dev/null
	@cmake --build --preset bench
	@for suite in build/bench/bench/kyrt_*_bench; do echo "==== $$suite"; $$suite || exit 1; done

format:
	@git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
