#include "lib/base/lanes.h"

namespace morvane {

namespace {

/// Rows of eight numbers, one for each of eight columns; `n` of each are there.
struct Rows {
    Float8 row[8];
    void load(const float* first, std::ptrdiff_t stride, std::ptrdiff_t columns, std::ptrdiff_t n) {
        for (std::ptrdiff_t j = 0; j < 8; ++j) {
            row[j] = Float8{};
            if (j < columns) std::memcpy(&row[j], first + j * stride, static_cast<std::size_t>(n) * sizeof(float));
        }
    }
    void load_all(const float* first, std::ptrdiff_t stride) {
        for (std::ptrdiff_t j = 0; j < 8; ++j) std::memcpy(&row[j], first + j * stride, sizeof(Float8));
    }
    void store(float* first, std::ptrdiff_t stride, std::ptrdiff_t columns, std::ptrdiff_t n) const {
        for (std::ptrdiff_t j = 0; j < columns; ++j)
            std::memcpy(first + j * stride, &row[j], static_cast<std::size_t>(n) * sizeof(float));
    }
    void store_all(float* first, std::ptrdiff_t stride) const {
        for (std::ptrdiff_t j = 0; j < 8; ++j) std::memcpy(first + j * stride, &row[j], sizeof(Float8));
    }
};

// Columns often lie a power of two apart, where a cache has room for few of their lines: whole lines at a time.
constexpr std::ptrdiff_t at_a_time = 16;

/// Eight columns of n numbers, `count` of which are there, to eight lanes.
void columns_to_lanes(const float* columns, std::ptrdiff_t n, std::ptrdiff_t count, float* lanes) {
    std::ptrdiff_t i = 0;
    if (count >= 8) {
        for (; i + at_a_time <= n; i += at_a_time) {
            Rows rows[2];
            rows[0].load_all(columns + i, n);
            rows[1].load_all(columns + i + 8, n);
            for (int k = 0; k < 2; ++k) {
                transpose(rows[k].row);
                rows[k].store_all(lanes + (i + 8 * k) * lane_count, lane_count);
            }
        }
    }
    for (; i < n; i += 8) {
        const std::ptrdiff_t here = std::min<std::ptrdiff_t>(8, n - i);
        Rows rows;
        rows.load(columns + i, n, count, here);
        transpose(rows.row);
        rows.store(lanes + i * lane_count, lane_count, here, 8);
    }
}

void lanes_to_columns(const float* lanes, std::ptrdiff_t n, std::ptrdiff_t count, float* columns) {
    std::ptrdiff_t i = 0;
    if (count >= 8) {
        for (; i + at_a_time <= n; i += at_a_time) {
            Rows rows[2];
            for (int k = 0; k < 2; ++k) {
                rows[k].load_all(lanes + (i + 8 * k) * lane_count, lane_count);
                transpose(rows[k].row);
            }
            for (std::ptrdiff_t j = 0; j < 8; ++j) {
                std::memcpy(columns + j * n + i, &rows[0].row[j], sizeof(Float8));
                std::memcpy(columns + j * n + i + 8, &rows[1].row[j], sizeof(Float8));
            }
        }
    }
    for (; i < n; i += 8) {
        const std::ptrdiff_t here = std::min<std::ptrdiff_t>(8, n - i);
        Rows rows;
        rows.load(lanes + i * lane_count, lane_count, here, 8);
        transpose(rows.row);
        rows.store(columns + i, n, std::min<std::ptrdiff_t>(8, count), here);
    }
}

}  // namespace

void to_lanes(View<const cf, 2> columns, LaneField lanes) {
    const std::ptrdiff_t n = 2 * columns.n[0];
    for (std::ptrdiff_t lane = 0; lane < lane_count; lane += 8)
        columns_to_lanes(parts(columns.p) + lane * n, n, columns.n[1] - lane, lanes.p + lane);
}

void from_lanes(ConstLaneField lanes, View<cf, 2> columns) {
    const std::ptrdiff_t n = 2 * columns.n[0];
    for (std::ptrdiff_t lane = 0; lane < columns.n[1]; lane += 8)
        lanes_to_columns(lanes.p + lane, n, columns.n[1] - lane, parts(columns.p) + lane * n);
}

void from_lanes(View<const float, 2> lanes, View<float, 2> columns) {
    const std::ptrdiff_t n = columns.n[0];
    for (std::ptrdiff_t lane = 0; lane < columns.n[1]; lane += 8)
        lanes_to_columns(lanes.p + lane, n, columns.n[1] - lane, columns.p + lane * n);
}

}  // namespace morvane
