// Runs a kernel's per-thread function over its whole thread grid on the host: rows of threads in
// parallel with OpenMP, each row as vectorised loops. Colour kernels split every row into border
// and interior runs so that neither loop carries the border test. Each row loop is compiled for
// several instruction sets, chosen at load time.
#pragma once

#include "host/grid/Avx2ColourRow.h"
#include "host/grid/RowClones.h"
#include "isp/LaunchGeometry.h"
#include "kernels/IndexRange.h"

#include <cuda_runtime.h>  // __forceinline__

#include <type_traits>

namespace ruvo {
namespace capture {
namespace kernels {

enum class RowPart { kAll, kBorder, kInterior };

template <class Kernel, RowPart part>
__forceinline__ void runThread(const Kernel& kernel, unsigned tx, unsigned ty) {
    if constexpr (part == RowPart::kAll) {
        kernel(tx, ty);
    } else if constexpr (part == RowPart::kBorder) {
        kernel.border(tx, ty);
    } else {
        kernel.interior(tx, ty);
    }
}

// Threads begin .. end - 1 of row ty as one vectorised loop. The kernel is copied so that its
// pointers and parameters are locals the output stores cannot alias.
template <class Kernel, RowPart part>
__forceinline__ void runThreads(const Kernel& kernel, unsigned ty, unsigned begin, unsigned end) {
    const Kernel local = kernel;
#pragma omp simd
    for (unsigned tx = begin; tx < end; ++tx) runThread<Kernel, part>(local, tx, ty);
}

template <class Kernel, RowPart part>
RUVO_ROW_CLONES void runRowThreads(const Kernel& kernel, unsigned ty, unsigned begin, unsigned end) {
    runThreads<Kernel, part>(kernel, ty, begin, end);
}

template <class Kernel>
RUVO_INTERIOR_ROW_CLONES void runInteriorThreads(const Kernel& kernel, unsigned ty, unsigned begin, unsigned end) {
    runThreads<Kernel, RowPart::kInterior>(kernel, ty, begin, end);
}

template <class Kernel, RowPart part>
void runThreadsOf(const Kernel& kernel, unsigned ty, unsigned begin, unsigned end) {
    if constexpr (part == RowPart::kInterior) {
        runInteriorThreads<Kernel>(kernel, ty, begin, end);
    } else {
        runRowThreads<Kernel, part>(kernel, ty, begin, end);
    }
}

// Kernel::kInteriorBlock where the kernel declares one, else 0.
template <class Kernel, class = void>
struct InteriorBlock {
    static constexpr unsigned value = 0;
};
template <class Kernel>
struct InteriorBlock<Kernel, std::void_t<decltype(Kernel::kInteriorBlock)>> {
    static constexpr unsigned value = Kernel::kInteriorBlock;
};

// Threads begin .. end - 1 of row ty in the portable loops. An interior run of a kernel that
// declares a block size, and is at least that long, is covered by whole blocks, the last one moved
// back to end at `end`: the vectorised loop then never leaves a remainder to its narrower and
// one-thread-at-a-time loops, and the threads the last block repeats store again what they stored
// before.
template <class Kernel, RowPart part>
void runPortableSpan(const Kernel& kernel, unsigned ty, unsigned begin, unsigned end) {
    constexpr unsigned block = part == RowPart::kInterior ? InteriorBlock<Kernel>::value : 0;
    const unsigned count = end - begin;
    if (block == 0 || count < block) return runThreadsOf<Kernel, part>(kernel, ty, begin, end);
    const unsigned wholeBlocksEnd = begin + count / block * block;
    runThreadsOf<Kernel, part>(kernel, ty, begin, wholeBlocksEnd);
    if (wholeBlocksEnd != end) runThreadsOf<Kernel, part>(kernel, ty, end - block, end);
}

// Threads begin .. end - 1 of row ty: an interior run by the kernel's hand-written row where this
// CPU has one (Avx2ColourRow.h), everything else by the portable loops.
template <class Kernel, RowPart part>
void runRowSpan(const Kernel& kernel, unsigned ty, unsigned begin, unsigned end) {
    if constexpr (part == RowPart::kInterior) {
        if (runHandWrittenRow(kernel, ty, begin, end)) return;
    }
    runPortableSpan<Kernel, part>(kernel, ty, begin, end);
}

template <class Kernel>
struct HasBorder {
    template <class K>
    static constexpr bool test(decltype(K::kHasBorder)*) {
        return K::kHasBorder;
    }
    template <class K>
    static constexpr bool test(...) {
        return false;
    }
    static constexpr bool value = test<Kernel>(nullptr);
};

template <class Kernel>
void runRow(const Kernel& kernel, unsigned ty, unsigned width) {
    if constexpr (HasBorder<Kernel>::value) {
        const IndexRange rows = kernel.interiorRows();
        if (ty < rows.begin || ty >= rows.end) {
            runRowSpan<Kernel, RowPart::kBorder>(kernel, ty, 0, width);
            return;
        }
        const IndexRange columns = kernel.interiorColumns();
        runRowSpan<Kernel, RowPart::kBorder>(kernel, ty, 0, columns.begin);
        runRowSpan<Kernel, RowPart::kInterior>(kernel, ty, columns.begin, columns.end);
        runRowSpan<Kernel, RowPart::kBorder>(kernel, ty, columns.end, width);
    } else {
        runRowSpan<Kernel, RowPart::kAll>(kernel, ty, 0, width);
    }
}

// Runs kernel(tx, ty) for every thread of a threads.x x threads.y grid; returns when all are done.
// Rows are handed out a few at a time, so that a thread that loses its core to another process
// (or to another camera's pipeline) does not hold up the frame with a fixed share of the rows.
template <class Kernel>
void runGrid(const Extent2& threads, const Kernel& kernel) {
    const int rows = static_cast<int>(threads.y);
#pragma omp parallel for schedule(dynamic, 4)
    for (int ty = 0; ty < rows; ++ty) runRow(kernel, static_cast<unsigned>(ty), threads.x);
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
