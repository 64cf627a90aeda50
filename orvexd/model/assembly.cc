#include "orvexd/model/assembly.h"

namespace orvex {

Assembly::Assembly(std::shared_ptr<WorkerPool> pool, std::shared_ptr<Clock> c)
    : workerPool(std::move(pool)), clock(std::move(c)) {}

Assembly::~Assembly() = default;

}  // namespace orvex
