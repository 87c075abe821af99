// The bootstrap specification of a dataset.
#ifndef SDM_BOOTSTRAPSPECS_H
#define SDM_BOOTSTRAPSPECS_H

// The record of how a dataset is to be bootstrapped. Owned by the item that
// holds it; one thread at a time.
class SvrBootstrapSpecs {
 public:
  SvrBootstrapSpecs() = default;
  virtual ~SvrBootstrapSpecs() = default;
};

#endif  // SDM_BOOTSTRAPSPECS_H
