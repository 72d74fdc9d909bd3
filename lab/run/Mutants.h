// Mutants: the misbehaviours that are done to the tables of agents.
#pragma once

namespace tessel::lab {

class Lab;

/// Does what the scenario's mutant asks for, now and every ten seconds; nothing for a mutant that
/// misbehaves elsewhere.
void startMutant(Lab& lab);

}  // namespace tessel::lab
