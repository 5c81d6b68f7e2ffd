#include "TrailerText.h"

#include "crp/PluginHeader.h"

std::string Quoted(const std::string& text) {
    constexpr bool EscapeAscii = true;
    return QxNJson::json(text).dump(-1, ' ', EscapeAscii);
}

QxNJson::json DescribeTrailer(const CrpPluginHeader& trailer) {
    QxNJson::json fields = QxNJson::json::object();
    fields["name"] = CRP::textOf(trailer.name);
    fields["version"] = CRP::textOf(trailer.version);
    fields["compatibleOs"] = CRP::textOf(trailer.compatibleOs);
    fields["initCommand"] = CRP::textOf(trailer.initCommand);
    fields["initPriority"] = trailer.initPriority;
    fields["pluginType"] = trailer.pluginType;
    fields["imageSize"] = trailer.imageSize;
    return fields;
}

bool IsImageComplete(const CrpPluginHeader& trailer, std::uint64_t fileSize) {
    return fileSize >= CRP_HEADER_SIZE && trailer.imageSize <= fileSize - CRP_HEADER_SIZE;
}
