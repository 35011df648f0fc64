// The scenario of the security service.
#pragma once

namespace sweep {

void prepare_service();
void act_service();
void prove_service();

}  // namespace sweep
