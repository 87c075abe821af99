#include "ObserverView.h"

void SvrDMObserverView::Update() {}
void SvrDMObserverView::BulkVarMoves(bool) {}
