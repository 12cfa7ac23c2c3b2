#pragma once
// Elementary functions on float vectors: polynomial approximations after
// Cody-Waite range reduction, within a few ulp of the C library. Built once per
// instruction set like every other SIMD header.

#ifndef TWA_ISA
#error "define TWA_ISA before including a SIMD header"
#endif

#include <cstdint>

namespace twa::simd::TWA_ISA {

inline V signMask() { return asFloat(iset1(static_cast<std::int32_t>(0x80000000u))); }
inline V vabs(V x) { return andnot(signMask(), x); }
inline V infinity() { return asFloat(iset1(0x7F800000)); }
inline V quietNaN() { return asFloat(iset1(0x7FC00000)); }

// y * 2^n for n in [-252, 254]; two factors keep each power a normal number.
inline V scaleByPow2(V y, VI n)
{
    const VI n1 = sra(n, 1);
    const VI n2 = n - n1;
    const VI bias = iset1(127);
    return y * asFloat(shl(n1 + bias, 23)) * asFloat(shl(n2 + bias, 23));
}

inline V vexp(V x)
{
    const V hi = set1(88.72283935546875f);  // above: overflow
    const V lo = set1(-103.972084045410f);  // below: rounds to zero
    const V xc = vmin(vmax(x, lo), hi);
    const VI n = roundToInt(xc * set1(1.44269504088896341f));
    const V nf = toFloat(n);
    V r = madd(nf, set1(-0.693359375f), xc);
    r = madd(nf, set1(2.12194440e-4f), r);
    const V z = r * r;
    V p = set1(1.9875691500e-4f);
    p = madd(p, r, set1(1.3981999507e-3f));
    p = madd(p, r, set1(8.3334519073e-3f));
    p = madd(p, r, set1(4.1665795894e-2f));
    p = madd(p, r, set1(1.6666665459e-1f));
    p = madd(p, r, set1(5.0000001201e-1f));
    const V y = madd(p, z, r) + set1(1.0f);
    V result = scaleByPow2(y, n);
    result = select(gt(x, hi), infinity(), result);
    result = select(lt(x, lo), zero(), result);
    return select(unord(x, x), x, result);
}

// Natural logarithm; 0 gives -inf, negatives and NaN give NaN.
inline V vlog(V x)
{
    const V minNormal = set1(1.17549435e-38f);
    const V tiny = lt(x, minNormal);
    // Subnormals are scaled into the normal range first.
    const V xs = select(tiny, x * set1(33554432.0f), x);
    const VI bits = asInt(xs);
    V e = toFloat(shr(bits, 23) - iset1(126)) - (tiny & set1(25.0f));
    V m = asFloat(bits & iset1(0x007FFFFF)) | asFloat(iset1(0x3F000000)); // [0.5, 1)
    const V small = lt(m, set1(0.707106781186547524f));
    e = e - (small & set1(1.0f));
    const V xm = (m - set1(1.0f)) + (small & m);
    const V z = xm * xm;
    V p = set1(7.0376836292e-2f);
    p = madd(p, xm, set1(-1.1514610310e-1f));
    p = madd(p, xm, set1(1.1676998740e-1f));
    p = madd(p, xm, set1(-1.2420140846e-1f));
    p = madd(p, xm, set1(1.4249322787e-1f));
    p = madd(p, xm, set1(-1.6668057665e-1f));
    p = madd(p, xm, set1(2.0000714765e-1f));
    p = madd(p, xm, set1(-2.4999993993e-1f));
    p = madd(p, xm, set1(3.3333331174e-1f));
    V y = p * xm * z;
    y = madd(e, set1(-2.12194440e-4f), y);
    y = madd(z, set1(-0.5f), y);
    V r = xm + y;
    r = madd(e, set1(0.693359375f), r);
    r = select(eq(x, infinity()), x, r);
    r = select(eq(x, zero()), zero() - infinity(), r);
    return select(lt(x, zero()) | unord(x, x), quietNaN(), r);
}

inline V vlog10(V x)
{
    return vlog(x) * set1(0.434294481903251827651f);
}

// 10^x, reduced by powers of two so the polynomial sees |r| <= log10(2)/2.
inline V vpow10(V x)
{
    const V hi = set1(38.5318394191036f); // log10(FLT_MAX)
    const V lo = set1(-45.1544993496f);   // log10 of the smallest subnormal
    const V xc = vmin(vmax(x, lo), hi);
    const VI n = roundToInt(xc * set1(3.32192809488736234787f));
    const V nf = toFloat(n);
    V r = madd(nf, set1(-3.00781250000000000000e-1f), xc);
    r = madd(nf, set1(-2.48745663981195213739e-4f), r);
    V p = set1(2.063216740311022e-1f);
    p = madd(p, r, set1(5.420251702225484e-1f));
    p = madd(p, r, set1(1.171292686296281e+0f));
    p = madd(p, r, set1(2.034649854009453e+0f));
    p = madd(p, r, set1(2.650948748208892e+0f));
    p = madd(p, r, set1(2.302585167056758e+0f));
    const V y = madd(p, r, set1(1.0f));
    V result = scaleByPow2(y, n);
    result = select(gt(x, hi), infinity(), result);
    result = select(lt(x, lo), zero(), result);
    return select(unord(x, x), x, result);
}

// Sine and cosine together; accurate for |x| up to about 8192.
inline void vsincos(V x, V& s, V& c)
{
    V signSin = x & signMask();
    V ax = vabs(x);
    VI j = truncToInt(ax * set1(1.27323954473516f)); // 4/pi
    j = (j + iset1(1)) & iset1(~1);
    const V y = toFloat(j);
    const V swapSin = asFloat(shl(j & iset1(4), 29));
    const V polyMask = ieq(j & iset1(2), iset1(0));
    const V signCos = asFloat(shl(iset1(4) - ((j - iset1(2)) & iset1(4)), 29));
    signSin = signSin ^ swapSin;

    ax = madd(y, set1(-0.78515625f), ax);
    ax = madd(y, set1(-2.4187564849853515625e-4f), ax);
    ax = madd(y, set1(-3.77489497744594108e-8f), ax);
    const V z = ax * ax;

    V yc = set1(2.443315711809948e-5f);
    yc = madd(yc, z, set1(-1.388731625493765e-3f));
    yc = madd(yc, z, set1(4.166664568298827e-2f));
    yc = yc * z * z;
    yc = madd(z, set1(-0.5f), yc) + set1(1.0f);

    V ys = set1(-1.9515295891e-4f);
    ys = madd(ys, z, set1(8.3321608736e-3f));
    ys = madd(ys, z, set1(-1.6666654611e-1f));
    ys = madd(ys * z, ax, ax);

    s = select(polyMask, ys, yc) ^ signSin;
    c = select(polyMask, yc, ys) ^ signCos;
}

// atan2(y, x) in [-pi, pi], following the signs of zeros as the C library does.
inline V vatan2(V y, V x)
{
    const V ax = vabs(x);
    const V ay = vabs(y);
    const V mx = vmax(ax, ay);
    const V mn = vmin(ax, ay);
    const V a = select(eq(mx, zero()), zero(), mn / mx);
    const V big = gt(a, set1(0.414213562373095f)); // tan(pi/8)
    const V t = select(big, (a - set1(1.0f)) / (a + set1(1.0f)), a);
    const V z = t * t;
    V p = set1(8.05374449538e-2f);
    p = madd(p, z, set1(-1.38776856032e-1f));
    p = madd(p, z, set1(1.99777106478e-1f));
    p = madd(p, z, set1(-3.33329491539e-1f));
    p = madd(p * z, t, t);
    V r = (big & set1(0.785398163397448f)) + p;
    r = select(gt(ay, ax), set1(1.57079632679490f) - r, r);
    const V xNegative = andnot(ieq(asInt(x & signMask()), iset1(0)), asFloat(iset1(-1)));
    r = select(xNegative, set1(3.14159265358979f) - r, r);
    return r | (y & signMask());
}

} // namespace twa::simd::TWA_ISA
