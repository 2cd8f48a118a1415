// A sysfs attribute served by a model: reading shows its current value, writing stores
// into the model (a driver's show/store pair).
#pragma once

#include <functional>
#include <string>

#include "vboard/DeviceModel.h"

namespace quarn::vboard {

class AttributeModel : public DeviceModel {
public:
    using Show = std::function<std::string()>;
    // Returns 0 to accept the text, or an errno value to refuse it.
    using Store = std::function<int(const std::string&)>;

    AttributeModel(Show show, Store store) : m_show(std::move(show)), m_store(std::move(store)) {}
    std::unique_ptr<FileHandle> open(int flags) override;
    bool isAttribute() const override { return true; }

private:
    friend class AttributeHandle;
    Show m_show;
    Store m_store;
};

}  // namespace quarn::vboard
