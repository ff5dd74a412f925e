// Panel kernels of the local vocabulary, in plain C++ with no Python in sight,
// so the callers can run them with the interpreter lock released.
//
// A panel is a row-major (days x instruments) block of doubles; NaN marks a
// missing value. Every kernel writes a fresh panel and mirrors the NumPy
// reference kernels operation by operation (same sums in the same order),
// so the two agree to rounding.
#pragma once

#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace native {

struct Shape {
    std::size_t days = 0;
    std::size_t names = 0;
    std::size_t size() const { return days * names; }
};

using In = std::span<const double>;

// Buffers of panels that were let go, kept for the next panel of the same
// size. A fresh buffer of a panel's size is new pages from the system, each
// costing a fault when first written; a search makes and drops a few panels
// per graph. Thread-safe; keeps at most kKeptBytes.
namespace buffers {
inline constexpr std::size_t kKeptBytes = std::size_t{64} << 20;
double* take(std::size_t n);
void give(double* p, std::size_t n) noexcept;
}  // namespace buffers

// A kernel's result: a buffer of doubles that is not zeroed first, since
// every kernel writes all of it.
class Panel {
    struct Give {
        std::size_t n = 0;
        void operator()(double* p) const noexcept { buffers::give(p, n); }
    };

public:
    Panel() = default;
    explicit Panel(std::size_t n) : data_(buffers::take(n), Give{n}), size_(n) {}
    Panel(std::size_t n, double fill) : Panel(n) { std::fill_n(data_.get(), n, fill); }

    double* data() { return data_.get(); }
    const double* data() const { return data_.get(); }
    std::size_t size() const { return size_; }
    double& operator[](std::size_t k) { return data_[k]; }
    double operator[](std::size_t k) const { return data_[k]; }
    operator In() const { return {data_.get(), size_}; }

private:
    std::unique_ptr<double[], Give> data_;
    std::size_t size_ = 0;
};

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Neither NaN nor infinite; written so that loops over it vectorise.
inline bool finite(double v) { return std::fabs(v) <= std::numeric_limits<double>::max(); }

// Every value a kernel writes: a non-finite one becomes NaN.
inline double finite_or_nan(double v) { return finite(v) ? v : kNaN; }

// Sum of n contiguous values in the order NumPy's reductions use (eight
// running sums in blocks of up to 128, halves above that). Inline, so that it
// is built for the vector unit of the function that calls it.
inline double pairwise_sum(const double* a, std::size_t n) {
    if (n < 8) {
        double res = 0.0;
        for (std::size_t i = 0; i < n; ++i) res += a[i];
        return res;
    }
    if (n <= 128) {
        double r[8];
        for (int j = 0; j < 8; ++j) r[j] = a[j];
        std::size_t i = 8;
        for (; i < n - n % 8; i += 8)
            for (int j = 0; j < 8; ++j) r[j] += a[i + static_cast<std::size_t>(j)];
        double res = ((r[0] + r[1]) + (r[2] + r[3])) + ((r[4] + r[5]) + (r[6] + r[7]));
        for (; i < n; ++i) res += a[i];
        return res;
    }
    std::size_t half = n / 2;
    half -= half % 8;
    return pairwise_sum(a, half) + pairwise_sum(a + half, n - half);
}

// A hot loop built both for the machine's wider vector units and for any x86-64,
// picked when the module loads. Values do not change: no fused multiply-adds,
// and the order of every sum is written out. The sanitizer build checks the
// one version the source describes.
#ifdef TW_NO_VECTOR_CLONES
#define TW_VECTOR_CLONES
#else
#define TW_VECTOR_CLONES __attribute__((target_clones("avx2", "default"), flatten))
#endif

// Instruments ordered by group: group g is members[starts[g] .. starts[g + 1]).
struct Groups {
    std::vector<std::size_t> members;
    std::vector<std::size_t> starts;
    std::size_t count() const { return starts.empty() ? 0 : starts.size() - 1; }
};

// `group[i]` is the 0-based group of instrument i; there are `count` groups.
Groups index_groups(const std::vector<long>& group, std::size_t count);

// What some operators need besides their inputs.
struct Env {
    Groups sectors;
    std::vector<double> liquidity_rank;  // days x instruments, NaN where unknown
};

// One operator of the vocabulary: its name, how many data inputs and config
// values it takes, and its kernel.
struct Operator {
    std::string_view name;
    int n_data;
    int n_config;
    Panel (*run)(const Env& env, Shape shape, const In* data, const double* config);
};

// The operator called `name`, or nullptr.
const Operator* find_operator(std::string_view name);

}  // namespace native
