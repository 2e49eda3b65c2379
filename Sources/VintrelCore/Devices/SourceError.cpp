#include "VintrelCore/Devices/SourceError.h"

SourceError SourceError::openFailed(const std::string& path, SystemError error)
{
    return { Kind::openFailed, "Kunne ikke åbne " + path + ": " + error.message(), error };
}

SourceError SourceError::authorizationFailed(const std::string& deviceName)
{
    return { Kind::authorizationFailed,
        "Adgang til " + deviceName
            + " blev afvist eller annulleret. Der kræves en administratoradgangskode for at læse "
              "fysiske diske." };
}

SourceError SourceError::notFound(const std::string& path)
{
    return { Kind::notFound, "Filen findes ikke: " + path };
}

SourceError SourceError::attachFailed(const std::string& message)
{
    return { Kind::attachFailed, "Kunne ikke tilknytte diskbilledet: " + message };
}
