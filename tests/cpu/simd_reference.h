// Plain scalar models of the xj::simd kernels, written from the definitions
// alone: no vectors, no shared code with the library. Tests compare every
// compiled target against these bit for bit.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace xjref {

uint16_t f32ToF16(float f);
float f16ToF32(uint16_t h);
inline float r16(float f) { return f16ToF32(f32ToF16(f)); }

// A second, independent model of the narrowing for runs of consecutive bit
// patterns (the exhaustive sweep): the half nearest in value, ties to the one
// with an even encoding, found by walking the midpoints between neighbouring
// halves. first .. first + n - 1 must not cross the sign bit.
void f32ToF16Run(uint32_t first, size_t n, uint16_t* out);

float roundF16Mul(float a, float b);
uint16_t rgbToHalf(uint8_t v);
float retrieveTermPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n);
float retrieveTermExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                             size_t begin, size_t end);
void conv3x3(const float* in, int Cin, int H, int W, const float* weights, const float* bias,
             int Cout, float* out, int begin, int end);
void yuvRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width, int chromaStep,
            uint8_t* rgb);

uint32_t bitsOf(float f);
float fromBits(uint32_t b);
// Same bits, or both NaN: for results of arithmetic on NaN operands, whose
// payload the hardware picks by operand order.
bool sameFloat(float a, float b);

// The dispatch targets this CPU supports, one per compiled body: SSSE3 and
// AVX3_DL have no body of their own and EMU128 shares the fallback slot with
// SCALAR, so those are left out.
std::vector<int64_t> kernelTargets();
const char* targetName(int64_t t);

// Restricts dispatch to one target for its lifetime.
class TargetScope {
 public:
  explicit TargetScope(int64_t target);
  ~TargetScope();
  TargetScope(const TargetScope&) = delete;
  TargetScope& operator=(const TargetScope&) = delete;
};

// XJ_TEST_SHORT=1 (sanitizer runs): sample instead of sweeping.
bool shortRun();

}  // namespace xjref
