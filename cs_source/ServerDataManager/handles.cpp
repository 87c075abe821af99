#include "handles.h"

SvrDMCloneDataSource::Data::~Data() {
  // A source never deletes its parent: read the link, then delete.
  QUOR_DataSource const* current = source;
  while (current != nullptr) {
    QUOR_DataSource const* parent = current->GetParentSource();
    delete current;
    current = parent;
  }
}

SvrDMCloneDataSource::SvrDMCloneDataSource(QUOR_DataSource const* source)
    : QUOR_DataSource(nullptr), data(nullptr) {
  // The record owns the source from here on, so a failing copy below still
  // frees it, with its chain, on the way out.
  data = new Data(source);
  CopyDictionary(*source);
}

SvrDMCloneDataSource::SvrDMCloneDataSource(SvrDMCloneDataSource const& other)
    : QUOR_DataSource(nullptr), data(other.data) {
  CopyDictionary(other);
}

SvrDMCloneDataSource::~SvrDMCloneDataSource() = default;

ObsIterator* SvrDMCloneDataSource::MakeIterator(OBS* obs) const {
  // The iterator takes what it needs from the parent while it is built; the
  // link is shown only for that long. It is the one const operation that
  // writes, hence the cast.
  auto* self = const_cast<SvrDMCloneDataSource*>(this);
  self->SetParentSource(data->source);
  ObsIterator* iterator = nullptr;
  try {
    iterator = new PassThroughIter(*this, obs, nullptr);
  } catch (...) {
    // Left shown, a later chain walk would reach the source and delete it
    // twice; hide it whatever happens.
    self->SetParentSource(nullptr);
    throw;
  }
  self->SetParentSource(nullptr);
  return iterator;
}

long SvrDMCloneDataSource::GetObsAreaSize() const { return data->source->GetObsAreaSize(); }

long long SvrDMCloneDataSource::RowCount() const { return data->source->RowCount(); }

int SvrDMCloneDataSource::NParents() const {
  return data->source != nullptr ? data->source->NParents() : 0;
}

bool SvrDMCloneDataSource::ShowParents(bool show) {
  bool const wasShown = GetParentSource() != nullptr;
  SetParentSource(show ? data->source : nullptr);
  return wasShown;
}
