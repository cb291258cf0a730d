// The lens polynomial P(u) = u * (1 + k2*u^2 + k3*u^3 + k4*u^4) and its slope, in double
// precision, from the single-precision coefficients of the lens record. The limit search
// and the Newton solver both evaluate it in exactly this order.
#ifndef VT_LENS_LENSPOLYNOMIAL_H
#define VT_LENS_LENSPOLYNOMIAL_H

#include "lens/LensData.h"

struct LensPolynomial {
  double k2, k3, k4;              // coefficients of u^2, u^3, u^4
  double slope2, slope3, slope4;  // 3*k2, 4*k3, 5*k4: the slope's coefficients

  explicit LensPolynomial(const VtAFXLensData& lens)
      : k2(lens.quadraticF),
        k3(lens.cubicF),
        k4(lens.quarticF),
        slope2(3.0 * k2),
        slope3(4.0 * k3),
        slope4(5.0 * k4) {}

  double Value(double u) const {
    const double u2 = u * u;
    return ((k4 * u2 + (k3 * u + k2)) * u2 + 1.0) * u;
  }
  double Slope(double u) const {
    const double u2 = u * u;
    return (slope4 * u2 + (slope3 * u + slope2)) * u2 + 1.0;
  }
};

#endif
