#pragma once

#include <map>

#include "Asic/InspectClasses.h"
#include "Asic/TableInterfaceBase.h"
#include "Brio/Attributes.h"
#include "Brio/Entity.h"
#include "Lumen/String.h"

namespace Asic {

// The table interfaces of the process, by qualified class name. Owns them.
class SwTableInterfacesSingleton final : public Brio::Entity {
 public:
  static constexpr const char* kTypeName = "Asic::SwTableInterfacesSingleton";

  static constexpr const char* className() { return "SwTableInterfacesSingleton"; }
  static constexpr auto attributes() {
    return Brio::attributeList(
        258, Brio::collection("swTableIntf", &SwTableInterfacesSingleton::interfaces_));
  }
  static constexpr const Lumen::TypeData& classData() {
    return kInspectClass<19, "SwTableInterfacesSingleton">;
  }
  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  SwTableInterfacesSingleton();
  ~SwTableInterfacesSingleton() override;

  // The singleton of the process, made at the first call.
  [[nodiscard]] static Lumen::Ptr<SwTableInterfacesSingleton> instance();

  [[nodiscard]] bool swTableIntfHas(const Lumen::String& key) const;
  // Null if there is none.
  [[nodiscard]] Lumen::Ptr<TableInterfaceBase> swTableIntf(const Lumen::String& key) const;
  void swTableIntfIs(const Lumen::String& key, const Lumen::Ptr<TableInterfaceBase>& intf);
  void swTableIntfDel(const Lumen::String& key);
  // Drops all interfaces, as at the end of an agent. The interfaces take themselves out of the
  // agent's list.
  void swTableIntfDelAll();
  [[nodiscard]] const std::map<Lumen::String, Lumen::Ptr<TableInterfaceBase>>& swTableIntfs()
      const noexcept {
    return interfaces_;
  }

 private:
  std::map<Lumen::String, Lumen::Ptr<TableInterfaceBase>> interfaces_;
};

}  // namespace Asic
